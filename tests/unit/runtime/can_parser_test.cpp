#include "can_parser.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "support/captured_output.h"
#include "support/verbosity_scope.h"

namespace
{

using frame = std::array<uint8_t, 8>;
using entry = std::array<uint32_t, 4>; // byte, mask, right, left

std::vector<entry> entries_of(const can_extraction *table)
{
	std::vector<entry> entries;
	for (; table->mask != 0; ++table)
		entries.push_back(
				{static_cast<uint32_t>(table->byte_index), table->mask, table->right_shift, table->left_shift});
	return entries;
}

// What decode_signal said and gave; the value starts as -99 to show that a failure leaves it alone.
struct decoded {
	int result;
	double value;
	std::vector<std::string> errors;
};

decoded decode(j1939_signal signal, const frame &bytes)
{
	captured_output output;
	double value = -99;
	int result = decode_signal(&signal, bytes.data(), &value);
	return {result, value, output.messages("ERR")};
}

j1939_signal make_signal(uint32_t start_bit, uint32_t bitlength, bool big_endian = false)
{
	j1939_signal signal = {};
	signal.start_bit = start_bit;
	signal.bitlength = bitlength;
	signal.big_endian = big_endian;
	signal.factor = 1;
	return signal;
}

}

TEST(compute_bit_masks, has_one_entry_for_each_byte_that_the_signal_touches)
{
	const struct {
		const char *what;
		int32_t start_bit;
		uint32_t bit_length;
		uint8_t big_endian;
		std::vector<entry> entries;
	} rows[] = {
			{"no bits", 13, 0, 0, {}},
			{"a whole byte", 0, 8, 0, {{0, 0xFF, 0, 0}}},
			{"one bit", 63, 1, 0, {{7, 0x80, 7, 0}}},
			{"within a byte", 18, 3, 0, {{2, 0x1C, 2, 0}}},
			{"across two bytes", 4, 8, 0, {{0, 0xF0, 4, 0}, {1, 0x0F, 0, 4}}},
			{"32 bits at a border", 32, 32, 0, {{4, 0xFF, 0, 0}, {5, 0xFF, 0, 8}, {6, 0xFF, 0, 16}, {7, 0xFF, 0, 24}}},
			{"32 bits across borders", 3, 32, 0,
					{{0, 0xF8, 3, 0}, {1, 0xFF, 0, 5}, {2, 0xFF, 0, 13}, {3, 0xFF, 0, 21}, {4, 0x07, 0, 29}}},
			{"big-endian, whole bytes", 8, 16, 1, {{1, 0xFF, 0, 0}, {0, 0xFF, 0, 8}}},
			{"big-endian, part of the first byte", 20, 10, 1, {{2, 0xF0, 4, 0}, {1, 0x3F, 0, 4}}},
			{"big-endian, 32 bits across borders", 39, 32, 1,
					{{4, 0x80, 7, 0}, {3, 0xFF, 0, 1}, {2, 0xFF, 0, 9}, {1, 0xFF, 0, 17}, {0, 0x7F, 0, 25}}},
			{"behind the frame", 64, 8, 0, {{8, 0xFF, 0, 0}}},
			{"before the frame, at a border", -16, 8, 0, {{0xFFFFFFFE, 0xFF, 0, 0}}},
			{"before the frame, within a byte: no bits", -3, 8, 0, {}},
			{"before the frame", 0, 16, 1, {{0, 0xFF, 0, 0}, {0xFFFFFFFF, 0xFF, 0, 8}}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		can_extraction table[can_extraction_count];
		memset(table, 0xA5, sizeof table); // of an earlier signal: the end must be written as well
		EXPECT_EQ(compute_bit_masks(table, 8, row.start_bit, row.bit_length, row.big_endian), 1);
		EXPECT_EQ(entries_of(table), row.entries);
	}
}

TEST(compute_bit_masks, refuses_more_than_32_bits)
{
	can_extraction table[can_extraction_count] = {};
	for (uint32_t length : {33u, 64u, 0xFFFFFFFFu}) {
		SCOPED_TRACE(length);
		EXPECT_EQ(compute_bit_masks(table, 8, 0, length, 0), 0);
	}
}

TEST(compute_bit_masks, refuses_to_work_without_a_table)
{
	EXPECT_EQ(compute_bit_masks(nullptr, 8, 0, 8, 0), 0);
}

TEST(compute_bit_masks, tests_the_frame_length_only_against_negative_bytes)
{
	can_extraction table[can_extraction_count] = {};
	EXPECT_EQ(compute_bit_masks(table, -5, -16, 8, 0), 0);
	EXPECT_EQ(compute_bit_masks(table, 1, -16, 8, 0), 1);
	EXPECT_EQ(compute_bit_masks(table, 1, 800, 8, 0), 1);
}

TEST(compute_bit_masks, stays_within_its_table_for_every_start_and_length)
{
	struct {
		can_extraction table[can_extraction_count];
		can_extraction guard;
	} memory;
	for (int32_t start : {INT32_MIN, INT32_MIN + 1, -65, -9, -8, -7, -1, 0, 1, 7, 63, 64, 65, INT32_MAX - 1, INT32_MAX})
		for (uint32_t length = 0; length <= 32; ++length)
			for (uint8_t big_endian : {uint8_t{0}, uint8_t{1}}) {
				SCOPED_TRACE(testing::Message() << start << " " << length << " " << int{big_endian});
				memset(&memory, 0xA5, sizeof memory);
				EXPECT_EQ(compute_bit_masks(memory.table, 8, start, length, big_endian), 1);
				EXPECT_EQ(memory.guard.mask, 0xA5);
				EXPECT_EQ(memory.guard.byte_index, static_cast<int32_t>(0xA5A5A5A5));
			}
}

TEST(extract_raw_value, puts_the_bits_of_all_entries_together)
{
	const can_extraction table[] = {{0, 0xF0, 4, 0}, {1, 0x0F, 0, 4}, {}};
	const uint8_t bytes[] = {0xAB, 0xCD};
	EXPECT_EQ(extract_raw_value(bytes, table), 0xDAu);
}

TEST(extract_raw_value, is_zero_for_an_empty_table)
{
	const can_extraction table[1] = {};
	EXPECT_EQ(extract_raw_value(nullptr, table), 0u);
}

TEST(extract_raw_value, loses_bits_that_are_shifted_by_32_or_more)
{
	const can_extraction table[] = {
			{0, 0xFF, 0, 32}, {0, 0xFF, 0, 0xFFFFFFFF}, {0, 0xFF, 32, 0}, {0, 0xFF, 255, 0}, {1, 0xFF, 0, 24}, {}};
	const uint8_t bytes[] = {0xAB, 0xCD};
	EXPECT_EQ(extract_raw_value(bytes, table), 0xCD000000u);
}

TEST(decode_signal, reads_the_signal_out_of_the_frame)
{
	const struct {
		const char *what;
		j1939_signal signal;
		frame bytes;
		double value;
	} rows[] = {
			{"one byte", make_signal(0, 8), {0x12, 0x34}, 0x12},
			{"little-endian across two bytes", make_signal(4, 8), {0xAB, 0xCD}, 0xDA},
			{"big-endian", make_signal(8, 16, true), {0x12, 0x34}, 0x1234},
			{"200", make_signal(16, 8), {0, 0, 200}, 200.0},
			{"no bits", make_signal(5, 0), {0xFF}, 0},
			{"no bits, far outside", make_signal(0xFFFFFFFF, 0), {0xFF}, 0},
			{"the last bit", make_signal(63, 1), {0, 0, 0, 0, 0, 0, 0, 0x80}, 1},
			{"five bytes", make_signal(3, 32), {0xF8, 0xFF, 0xFF, 0xFF, 0x07}, 4294967295.0},
			{"five bytes up to the end", make_signal(31, 32), {0, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0x7F}, 4294967295.0},
			{"five bytes, big-endian", make_signal(63, 32, true), {0, 0, 0, 0x7F, 0xFF, 0xFF, 0xFF, 0x80},
					4294967295.0},
			{"big-endian down to the first byte", make_signal(24, 32, true), {0x12, 0x34, 0x56, 0x78}, 0x12345678},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		decoded result = decode(row.signal, row.bytes);
		EXPECT_EQ(result.result, 0);
		EXPECT_EQ(result.value, row.value);
		EXPECT_EQ(result.errors, std::vector<std::string>{});
	}
}

TEST(decode_signal, applies_factor_and_offset)
{
	const struct {
		const char *what;
		double factor;
		int32_t offset;
		double value;
	} rows[] = {
			{"as it is", 1, 0, 200},
			{"factor and offset", 3, 7, 607},
			{"a negative offset", 1, -273, -73},
			{"factor 0 leaves the offset", 0, 42, 42},
			{"a fractional factor", 0.5, 0, 100},
			{"large", 4294967295.0, INT32_MIN, 200 * 4294967295.0 - 2147483648.0},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		j1939_signal signal = make_signal(0, 8);
		signal.factor = row.factor;
		signal.offset = row.offset;
		EXPECT_EQ(decode(signal, {200}).value, row.value);
	}
}

TEST(decode_signal, gives_the_offset_for_a_signal_of_no_bits)
{
	j1939_signal signal = make_signal(0, 0);
	signal.factor = 9;
	signal.offset = 17;
	EXPECT_EQ(decode(signal, {0xFF}).value, 17);
}

TEST(decode_signal, fails_for_signals_that_do_not_lie_in_the_frame)
{
	const struct {
		const char *what;
		j1939_signal signal;
	} rows[] = {
			{"33 bits", make_signal(0, 33)},
			{"no end of bits", make_signal(0, 0xFFFFFFFF)},
			{"starts behind the frame", make_signal(64, 1)},
			{"starts far behind the frame", make_signal(0x7FFFFFFF, 8)},
			{"starts where a signed position is negative", make_signal(0x80000000, 8)},
			{"starts one bit before the frame", make_signal(0xFFFFFFFF, 8)},
			{"starts a byte before the frame", make_signal(0xFFFFFFF8, 8)},
			{"runs out of the frame", make_signal(63, 2)},
			{"runs far out of the frame", make_signal(60, 32)},
			{"big-endian, runs out before byte 0", make_signal(0, 9, true)},
			{"big-endian, runs far out before byte 0", make_signal(7, 32, true)},
			{"big-endian, starts behind the frame", make_signal(64, 16, true)},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		decoded result = decode(row.signal, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
		EXPECT_EQ(result.result, -1);
		EXPECT_EQ(result.value, -99);
		EXPECT_EQ(result.errors, std::vector<std::string>{"Could not compute BitMask"});
	}
}

TEST(decode_signal, logs_its_failure_as_an_error_of_can_parser)
{
	captured_output output;
	j1939_signal signal = make_signal(0, 33);
	double value = 0;
	EXPECT_EQ(decode_signal(&signal, frame{}.data(), &value), -1);
	EXPECT_TRUE(output.has_line("ERR", "can_parser", "Could not compute BitMask"));
}

TEST(decode_signal, is_silent_below_the_error_level)
{
	verbosity_scope level(LOG_FATAL);
	EXPECT_EQ(decode(make_signal(0, 33), {}).errors, std::vector<std::string>{});
}

TEST(decode_signal, builds_the_table_anew_each_time)
{
	j1939_signal signal = make_signal(3, 32);
	const frame bytes = {0xF8, 0xFF, 0xFF, 0xFF, 0x07};
	double first = 0, second = 0;
	EXPECT_EQ(decode_signal(&signal, bytes.data(), &first), 0);
	signal.bitlength = 5;
	EXPECT_EQ(decode_signal(&signal, bytes.data(), &second), 0);
	EXPECT_EQ(first, 4294967295.0);
	EXPECT_EQ(second, 31);
}
