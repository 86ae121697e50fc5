#include "logger.h"

#include <stdio_ext.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/captured_output.h"
#include "support/verbosity_scope.h"

namespace
{

// What stands after the stamp, "[11-15:15:50:21.123] ".
std::string after_stamp(const std::string &text)
{
	return text.substr(text.find("] ") + 2);
}

std::string logged(int level, const std::string &message)
{
	captured_output output;
	log_message(level, "module", 1, "%s", message.c_str());
	return output.messages().at(0);
}

// Is the line still in the stream's buffer after the call?
bool stays_buffered(int level)
{
	captured_output output;
	setvbuf(stdout, nullptr, _IOFBF, BUFSIZ); // as it is when the output is not a terminal
	log_message(level, "module", 1, "text");
	return __fpending(stdout) != 0;
}

}

TEST(logger, prints_stamp_label_source_line_and_text)
{
	captured_output output;
	log_message(LOG_INFO, "movra_fleet", 42, "%d jobs", 3);

	EXPECT_EQ(after_stamp(output.text()), "\x1b[1;32mINFO\x1b[1;0m movra_fleet:42 3 jobs\n");
}

TEST(logger, stamps_the_utc_time_to_the_millisecond)
{
	captured_output output;
	time_t before = time(nullptr);
	log_message(LOG_INFO, "module", 1, "text");
	time_t after = time(nullptr);

	std::string stamp = output.text().substr(0, 21);
	char first[32], last[32];
	strftime(first, sizeof first, "[%m-%d:%H:%M:%S.", gmtime(&before));
	strftime(last, sizeof last, "[%m-%d:%H:%M:%S.", gmtime(&after));
	EXPECT_TRUE(stamp.substr(0, 16) == first || stamp.substr(0, 16) == last) << stamp;
	EXPECT_EQ(stamp.substr(16).find_first_not_of("0123456789"), 3u) << stamp;
	EXPECT_EQ(stamp.substr(19), "] ");
}

TEST(logger, has_a_label_for_each_level)
{
	const struct {
		int level;
		const char *label;
	} rows[] = {
			{-5, ""},
			{-2, ""},
			{LOG_FATAL, "\x1b[1;31mFATAL\x1b[1;0m"},
			{LOG_ERR, "\x1b[1;31mERR \x1b[1;0m"},
			{LOG_WARN, "\x1b[1;33mWARN\x1b[1;0m"},
			{LOG_INFO, "\x1b[1;32mINFO\x1b[1;0m"},
			{LOG_DBG, "\x1b[1;35mDBG \x1b[1;0m"},
			{LOG_D2BG, "\x1b[1;36mD2BG\x1b[1;0m"},
			{LOG_D3BG, "\x1b[1;36mD3BG\x1b[1;0m"},
			{6, ""},
			{7, ""},
			{100, ""},
			{INT32_MAX, ""},
			{INT32_MIN, ""},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.level);
		captured_output output;
		log_message(row.level, "module", 1, "text");
		EXPECT_EQ(after_stamp(output.text()), std::string(row.label) + " module:1 text\n");
	}
}

TEST(logger, drops_one_trailing_newline)
{
	EXPECT_EQ(logged(LOG_ERR, "text\n"), "text");

	captured_output output;
	log_message(LOG_ERR, "module", 1, "two\n\n");
	EXPECT_EQ(after_stamp(output.text()), "\x1b[1;31mERR \x1b[1;0m module:1 two\n\n");
}

TEST(logger, prints_an_empty_text)
{
	EXPECT_EQ(logged(LOG_ERR, ""), "");
}

TEST(logger, cuts_and_marks_texts_from_1020_characters_on)
{
	const struct {
		size_t length, kept;
		bool marked;
	} rows[] = {
			{1018, 1018, false},
			{1019, 1019, false},
			{1020, 1016, true},
			{1021, 1017, true},
			{1022, 1018, true},
			{1023, 1019, true},
			{1024, 1019, true},
			{5000, 1019, true},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.length);
		EXPECT_EQ(
				logged(LOG_ERR, std::string(row.length, 'x')), std::string(row.kept, 'x') + (row.marked ? "..." : ""));
	}
}

TEST(logger, drops_the_newline_of_a_text_of_1019_characters)
{
	EXPECT_EQ(logged(LOG_ERR, std::string(1018, 'x') + "\n"), std::string(1018, 'x'));
}

TEST(logger, counts_the_dropped_newline_when_it_decides_whether_a_text_is_cut)
{
	const struct {
		size_t length, kept; // the length with its newline
	} rows[] = {{1020, 1016}, {1022, 1018}, {1023, 1019}, {1024, 1019}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.length);
		EXPECT_EQ(logged(LOG_ERR, std::string(row.length - 1, 'x') + "\n"), std::string(row.kept, 'x') + "...");
	}
}

TEST(logger, flushes_lines_of_info_and_above_only)
{
	for (int level = LOG_FATAL; level <= LOG_D3BG; ++level) {
		SCOPED_TRACE(level);
		EXPECT_EQ(stays_buffered(level), level > LOG_INFO);
	}
}

TEST(logger, shows_the_part_of_a_path_after_the_last_slash)
{
	EXPECT_STREQ(short_file_name("/a/b/module"), "module");
	EXPECT_STREQ(short_file_name("module"), "module");
	EXPECT_STREQ(short_file_name("dir/"), "");
	EXPECT_STREQ(short_file_name(""), "");
}

TEST(logger, logs_at_a_level_up_to_the_verbosity)
{
	for (int level = LOG_ERR; level <= LOG_D3BG; ++level) {
		for (int allowed = LOG_ERR; allowed <= LOG_D3BG; ++allowed) {
			SCOPED_TRACE(testing::Message() << "level " << level << ", verbosity " << allowed);
			verbosity_scope scope(allowed);
			captured_output output;
			LOG_AT(level, "module", "text");
			EXPECT_EQ(output.records().size(), level <= allowed ? 1u : 0u);
		}
	}
}

TEST(logger, has_a_verbosity_of_info_by_default)
{
	EXPECT_EQ(verbosity, LOG_INFO);
}

TEST(logger, keeps_lines_of_several_threads_apart)
{
	captured_output output;
	std::vector<std::thread> threads;
	for (int index = 0; index < 4; ++index)
		threads.emplace_back([] {
			for (int line = 0; line < 100; ++line)
				log_message(LOG_ERR, "module", 1, "%s", std::string(200, 'x').c_str());
		});
	for (std::thread &thread : threads)
		thread.join();

	EXPECT_EQ(output.count("ERR", "module", std::string(200, 'x')), 400u);
}
