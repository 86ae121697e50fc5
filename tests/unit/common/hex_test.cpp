#include "movra_fleet/common/hex.h"

#include <stdio_ext.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/captured_output.h"
#include "support/fail_nth.h"
#include "support/verbosity_scope.h"

namespace
{

using byte_run = std::vector<uint8_t>;
using owned_text = std::unique_ptr<char, decltype(&free)>;

byte_run counting(size_t length)
{
	byte_run run(length);
	for (size_t i = 0; i < length; ++i)
		run[i] = static_cast<uint8_t>(i);
	return run;
}

// The cells of the first `length` counting bytes.
std::string cells(size_t length)
{
	std::string text;
	char cell[4];
	for (uint8_t byte : counting(length)) {
		(void)snprintf(cell, sizeof cell, " %02x", byte);
		text += cell;
	}
	return text;
}

std::string dump_of(const char *label, const byte_run &run)
{
	captured_output output;
	log_hex_dump(label, run.data(), run.size(), 77);
	return output.text();
}

// What stands behind the time stamp.
std::string without_time(const std::string &line)
{
	return line.substr(line.find(']') + 1);
}

// Puts the process into a time zone.
class zone_scope
{
public:
	explicit zone_scope(const char *zone)
	{
		if (const char *old = getenv("TZ"); old != nullptr)
			before = old;
		setenv("TZ", zone, 1);
		tzset();
	}
	~zone_scope()
	{
		if (before)
			setenv("TZ", before->c_str(), 1);
		else
			unsetenv("TZ");
		tzset();
	}
	zone_scope(const zone_scope &) = delete;
	zone_scope &operator=(const zone_scope &) = delete;

private:
	std::optional<std::string> before;
};

std::optional<struct timespec> now;

// While it lives, this is the time.
class fixed_time
{
public:
	explicit fixed_time(struct timespec moment)
	{
		now = moment;
	}
	~fixed_time()
	{
		now.reset();
	}
	fixed_time(const fixed_time &) = delete;
	fixed_time &operator=(const fixed_time &) = delete;
};

struct converted {
	size_t count;
	byte_run bytes;
};

// Converts into a buffer of exactly `capacity` bytes, each 0xEE before.
converted convert(const char *text, size_t capacity)
{
	byte_run buffer(capacity, 0xEE);
	size_t count = hex_string_to_bytes(text, buffer.data(), capacity);
	return {count, buffer};
}

}

extern "C" int __real_timespec_get(struct timespec *result, int base);
extern "C" int __wrap_timespec_get(struct timespec *result, int base);

int __wrap_timespec_get(struct timespec *result, int base)
{
	if (!now || base != TIME_UTC)
		return __real_timespec_get(result, base);
	*result = *now;
	return base;
}

TEST(log_hex_dump, prints_time_module_line_label_count_and_bytes)
{
	std::string line = dump_of("UDS Data: ", {0x22, 0xF1, 0x90});

	EXPECT_THAT(line,
			testing::MatchesRegex("\\[[0-9]{2}-[0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\\]:movra_fleet\\(77\\): "
								  "UDS Data:  \\(3 bytes\\): 22 f1 90\n"));
}

TEST(log_hex_dump, stamps_with_utc_to_the_full_millisecond)
{
	const zone_scope zone("EAST-05:30");
	const struct {
		long nanoseconds;
		const char *stamp;
	} rows[] = {
			{0, "[05-01:10:00:00.000]"},
			{7'999'999, "[05-01:10:00:00.007]"},
			{999'999'999, "[05-01:10:00:00.999]"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.nanoseconds);
		const fixed_time moment({.tv_sec = 1714557600, .tv_nsec = row.nanoseconds});
		std::string line = dump_of("x", {1});
		EXPECT_EQ(line.substr(0, line.find(']') + 1), row.stamp);
	}
}

TEST(log_hex_dump, reaches_the_output_at_once)
{
	captured_output output;
	const uint8_t byte = 1;
	log_hex_dump("x", &byte, 1, 77);
	EXPECT_EQ(__fpending(stdout), 0u);
}

TEST(log_hex_dump, cuts_after_24_bytes_below_d3bg)
{
	const struct {
		const char *what;
		int level;
		size_t length;
		std::string tail;
	} rows[] = {
			{"nothing", 2, 0, "): x (0 bytes):\n"},
			{"24 are whole", 2, 24, "): x (24 bytes):" + cells(24) + "\n"},
			{"25 are cut", 2, 25, "): x (25 bytes):" + cells(24) + "...\n"},
			{"30 are cut", 4, 30, "): x (30 bytes):" + cells(24) + "...\n"},
			{"30 are whole at D3BG", 5, 30, "): x (30 bytes):" + cells(30) + "\n"},
			{"200 are whole at D3BG", 5, 200, "): x (200 bytes):" + cells(200) + "\n"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		verbosity_scope level(row.level);
		EXPECT_EQ(without_time(dump_of("x", counting(row.length))), ":movra_fleet(77" + row.tail);
	}
}

TEST(log_hex_dump, cuts_a_label_that_does_not_fit_its_line)
{
	std::string line = dump_of(std::string(1000, 'l').c_str(), {0xAB});

	EXPECT_LT(line.size(), 300u);
	EXPECT_EQ(line.substr(line.size() - 5), "l ab\n");
}

TEST(log_hex_dump, leaves_each_line_whole_when_threads_dump_at_once)
{
	constexpr int lines_each = 50;
	verbosity_scope level(5);
	byte_run run = counting(300);
	captured_output output;
	auto dump = [&] {
		for (int i = 0; i < lines_each; ++i)
			log_hex_dump("x", run.data(), run.size(), 77);
	};
	std::thread other(dump);
	dump();
	other.join();

	std::vector<std::string> lines = output.messages();
	ASSERT_EQ(lines.size(), 2u * lines_each);
	for (const std::string &line : lines)
		EXPECT_EQ(without_time(line), ":movra_fleet(77): x (300 bytes):" + cells(300));
}

TEST(log_hex_dump, is_left_out_without_memory)
{
	fail_nth failure("malloc", 1, ENOMEM, fail_nth::this_thread);
	captured_output output;
	log_hex_dump("x", nullptr, 0, 77);

	EXPECT_TRUE(failure.fired());
	EXPECT_EQ(output.text(), "");
}

TEST(bytes_to_hex_string, writes_upper_case_pairs)
{
	const struct {
		byte_run bytes;
		const char *text;
	} rows[] = {
			{{}, ""},
			{{0x0A, 0xFF}, "0AFF"},
			{{0x00}, "00"},
			{{0x62, 0xF1, 0x90, 0x41}, "62F19041"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		owned_text text(bytes_to_hex_string(row.bytes.data(), row.bytes.size()), free);
		EXPECT_STREQ(text.get(), row.text);
	}
}

TEST(bytes_to_hex_string, dumps_its_bytes_from_dbg_on)
{
	const struct {
		int level;
		bool dumped;
	} rows[] = {{2, false}, {3, true}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.level);
		verbosity_scope level(row.level);
		captured_output output;
		const uint8_t bytes[] = {0x0A, 0xFF};
		owned_text text(bytes_to_hex_string(bytes, sizeof bytes), free);

		EXPECT_EQ(output.text().find("): Data:  (2 bytes): 0a ff\n") != std::string::npos, row.dumped);
		EXPECT_EQ(output.text().empty(), !row.dumped);
	}
}

TEST(bytes_to_hex_string, reports_the_size_that_could_not_be_had)
{
	captured_output output;
	fail_nth failure("calloc", 1, ENOMEM, fail_nth::this_thread);
	const uint8_t bytes[3] = {};
	EXPECT_EQ(bytes_to_hex_string(bytes, sizeof bytes), nullptr);

	EXPECT_EQ(output.messages(), std::vector<std::string>{"Memory Allocation failed 8"});
	EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "Memory Allocation failed 8"));
}

TEST(hex_string_to_bytes, reads_two_digits_for_each_byte)
{
	const struct {
		const char *what;
		const char *text;
		size_t capacity;
		size_t count;
		byte_run bytes;
	} rows[] = {
			{"mixed case", "1A2b", 2, 2, {0x1A, 0x2B}},
			{"nothing", "", 1, 0, {0xEE}},
			{"every digit", "0123456789abcdefABCDEF", 11, 11,
					{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF}},
			{"no digits: unchanged, counted", "ZZ41", 2, 2, {0xEE, 0x41}},
			{"one digit, then another character", "4Z41", 2, 2, {0x04, 0x41}},
			{"another character, then a digit", "Z441", 2, 2, {0xEE, 0x41}},
			{"neither sign nor blank begins a pair", "-1+1 1", 3, 3, {0xEE, 0xEE, 0xEE}},
			{"a prefix is a pair like any other", "0x41", 2, 2, {0x00, 0x41}},
			{"characters next to the digits", "/0:0@0G0`0g0", 6, 6, {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}},
			{"no more than fits", "112233", 2, 2, {0x11, 0x22}},
			{"no room at all", "11", 0, 0, {}},
			{"a last single digit without room is left out", "123", 1, 1, {0x12}},
			{"a last single digit with room is a byte", "123", 3, 2, {0x12, 0x03, 0xEE}},
			{"a last single character that is no digit", "12Z", 2, 2, {0x12, 0xEE}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		converted result = convert(row.text, row.capacity);
		EXPECT_EQ(result.count, row.count);
		EXPECT_EQ(result.bytes, row.bytes);
	}
}

TEST(hex_string_to_bytes, undoes_bytes_to_hex_string)
{
	byte_run all = counting(256);
	owned_text text(bytes_to_hex_string(all.data(), all.size()), free);
	EXPECT_EQ(convert(text.get(), 256).bytes, all);
}
