// The trace and the request log.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "request_record.h"

namespace
{

constexpr const char *time_pattern = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}Z";

class recording : public testing::Test
{
protected:
	void TearDown() override
	{
		request_record_close(&record);
		std::filesystem::remove(path);
	}

	void open_log()
	{
		std::string error;
		ASSERT_TRUE(request_record_open(&record, path, &error)) << error;
	}

	std::string log() const
	{
		std::ostringstream text;
		text << std::ifstream(path).rdbuf();
		return text.str();
	}

	const std::string path =
			(std::filesystem::temp_directory_path() / ("quillet-ecu-log-" + std::to_string(getpid()))).string();
	request_record record;
};

TEST_F(recording, logs_each_request_as_it_comes)
{
	open_log();
	request_record_request(record, "engine", std::vector<uint8_t>{0x22, 0xF1, 0x90}, UDS_PHYSICAL);
	EXPECT_THAT(log(), testing::MatchesRegex(std::string(time_pattern) + " engine 22F190\n"));
	request_record_request(record, "body", std::vector<uint8_t>{0x3E, 0x80}, UDS_FUNCTIONAL);
	EXPECT_THAT(log(), testing::EndsWith(" body 3E80 functional\n"));
}

TEST_F(recording, logs_all_bytes_of_a_long_request)
{
	open_log();
	request_record_request(record, "e", std::vector<uint8_t>(8191, 0xAB), UDS_PHYSICAL);
	EXPECT_EQ(log().size(), std::string("2024-05-01T12:00:00.123Z e \n").size() + 2 * 8191);
}

TEST_F(recording, keeps_what_the_log_holds_already)
{
	std::ofstream(path) << "before\n";
	open_log();
	request_record_request(record, "e", std::vector<uint8_t>{0x3E, 0x00}, UDS_PHYSICAL);
	EXPECT_THAT(log(), testing::StartsWith("before\n"));
	EXPECT_THAT(log(), testing::EndsWith(" e 3E00\n"));
}

TEST_F(recording, does_not_log_answers)
{
	open_log();
	request_record_answer(record, "e", std::vector<uint8_t>{0x7E, 0x00});
	EXPECT_EQ(log(), "");
}

TEST_F(recording, says_why_the_log_cannot_be_opened)
{
	std::string error;
	EXPECT_FALSE(request_record_open(&record, "/nonexistent/log", &error));
	EXPECT_EQ(error, "the request log /nonexistent/log cannot be opened: No such file or directory");
}

TEST_F(recording, traces_requests_and_answers)
{
	record.trace = true;
	testing::internal::CaptureStdout();
	request_record_request(record, "e", std::vector<uint8_t>{0x3E, 0x00}, UDS_FUNCTIONAL);
	request_record_answer(record, "e", std::vector<uint8_t>{0x7E, 0x00});
	EXPECT_THAT(testing::internal::GetCapturedStdout(),
			testing::MatchesRegex(
					std::string(time_pattern) + " e <- 3E 00 functional\n" + time_pattern + " e -> 7E 00\n"));
}

TEST_F(recording, traces_the_beginning_of_a_long_message)
{
	record.trace = true;
	testing::internal::CaptureStdout();
	request_record_answer(record, "e", std::vector<uint8_t>(65, 0xAB));
	EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::EndsWith("AB AB ... (65 bytes)\n"));
}

TEST_F(recording, traces_nothing_unless_asked)
{
	testing::internal::CaptureStdout();
	request_record_request(record, "e", std::vector<uint8_t>{0x3E, 0x00}, UDS_PHYSICAL);
	request_record_answer(record, "e", std::vector<uint8_t>{0x7E, 0x00});
	EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

} // namespace
