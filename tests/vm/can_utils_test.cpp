// Our ISO-TP against can-utils' isotpsend and isotprecv, which are programs of their own over the kernel's: every byte
// both ways, their options for block size, separation and padding, 11 and 29 bits.
#include "vcan_bench.h"

#include <cstdio>
#include <fstream>
#include <sstream>

namespace
{

struct exchange_row {
	size_t length;
	unsigned block_size;
	unsigned st_min;
	bool is_extended;
	double least_ms; // that its separation makes it last
};

constexpr exchange_row rows[] = {
		{1, 0, 0x00, false, 0},
		{7, 0, 0x00, false, 0},
		{7, 0, 0x00, true, 0},
		{8, 0, 0x00, false, 0},
		{62, 0, 0x7F, false, 7 * 127},
		{62, 3, 0x0A, true, 5 * 10},
		{4095, 0, 0x00, false, 0},
		{4095, 0, 0x00, true, 0},
		{4095, 1, 0x00, false, 0},
		{4095, 8, 0x00, true, 0},
		{4095, 8, 0x01, false, (585 - 74) * 1},
		{4095, 255, 0xF5, false, (585 - 3) * 0.5},
};

std::string hex(unsigned long number, int digits)
{
	char text[16];
	(void)snprintf(text, sizeof(text), "%0*lX", digits, number); // has room
	return text;
}

bytes bytes_of(const std::string &text)
{
	std::istringstream in(text);
	bytes result;
	for (unsigned byte = 0; in >> std::hex >> byte;)
		result.push_back(static_cast<uint8_t>(byte));
	return result;
}

std::string text_of(const bytes &data)
{
	std::string text;
	for (const uint8_t byte : data)
		text += hex(byte, 2) + " ";
	return text + "\n";
}

class can_utils : public vcan_bench
{
protected:
	void open_for(const exchange_row &row)
	{
		ours = row.is_extended ? 0x18DA10F1 : request_id;
		theirs = row.is_extended ? 0x18DAF110 : response_id;
		open(static_cast<uint8_t>(row.block_size), static_cast<uint8_t>(row.st_min), ours, theirs);
	}
	// Their side's command; they insist on our padding.
	std::string command(const std::string &program, const std::string &options) const
	{
		const int digits = ours > 0x7FF ? 8 : 3;
		return "/usr/bin/" + program + " -s " + hex(theirs, digits) + " -d " + hex(ours, digits) + " -p CC:CC -P a " +
				options + " " + our_interface;
	}
	// Waits until a program of theirs takes frames.
	static bool is_listening()
	{
		for (const double until_ms = now_ms() + 5000; now_ms() < until_ms;) {
			for (const char *list : {"/proc/net/can/rcvlist_sff", "/proc/net/can/rcvlist_eff"}) {
				std::ifstream file(list);
				for (std::string line; std::getline(file, line);)
					if (line.find("isotp") != std::string::npos)
						return true;
			}
			std::this_thread::sleep_for(std::chrono::milliseconds(1));
		}
		return false;
	}

	uint32_t ours = 0;
	uint32_t theirs = 0;
};

std::string all_of(FILE *from)
{
	std::string text;
	char part[4096];
	while (const size_t count = fread(part, 1, sizeof(part), from))
		text.append(part, count);
	return text;
}

}

TEST_F(can_utils, receive_what_we_send)
{
	for (const exchange_row &row : rows) {
		SCOPED_TRACE(testing::Message() << row.length << " bytes, block size " << row.block_size << ", STmin "
										<< row.st_min << ", 29 bits " << row.is_extended);
		open_for(row);
		FILE *program =
				popen(command("isotprecv", "-b " + hex(row.block_size, 2) + " -m " + hex(row.st_min, 2)).c_str(), "r");
		ASSERT_NE(program, nullptr);
		ASSERT_TRUE(is_listening());
		const double took_ms = ms_of([&] { EXPECT_EQ(send(pattern(row.length)), 0); });
		EXPECT_TRUE(bytes_of(all_of(program)) == pattern(row.length));
		EXPECT_EQ(pclose(program), 0);
		EXPECT_GE(took_ms, row.least_ms);
		EXPECT_EQ(transport_deinit(handle, 0), 0);
	}
	handle = 0;
}

TEST_F(can_utils, send_what_we_receive)
{
	for (const exchange_row &row : rows) {
		SCOPED_TRACE(testing::Message() << row.length << " bytes, block size " << row.block_size << ", STmin "
										<< row.st_min << ", 29 bits " << row.is_extended);
		open_for(row);
		bytes response;
		std::thread sending([&] {
			FILE *program = popen(command("isotpsend", "-b").c_str(), "w");
			ASSERT_NE(program, nullptr);
			fputs(text_of(pattern(row.length)).c_str(), program);
			EXPECT_EQ(pclose(program), 0);
		});
		const double took_ms = ms_of([&] { EXPECT_EQ(receive(&response, 5000), 0); });
		sending.join();
		EXPECT_TRUE(response == pattern(row.length)) << response.size();
		EXPECT_GE(took_ms, row.least_ms);
		EXPECT_EQ(transport_deinit(handle, 0), 0);
	}
	handle = 0;
}

// Nobody of theirs: the request ends after N_Bs, and the next one is right.
TEST_F(can_utils, are_understood_again_after_they_were_away)
{
	open_for(rows[0]);
	EXPECT_LT(send(pattern(62)), 0);
	FILE *program = popen(command("isotprecv", "").c_str(), "r");
	ASSERT_NE(program, nullptr);
	ASSERT_TRUE(is_listening());
	EXPECT_EQ(send(pattern(62)), 0);
	EXPECT_TRUE(bytes_of(all_of(program)) == pattern(62));
	EXPECT_EQ(pclose(program), 0);
}
