#include "movra_fleet/common/request_number.h"

#include <gtest/gtest.h>

TEST(request_number, reads_texts_as_a_32_bit_unit_does)
{
	const struct {
		const char *text;
		int base;
		uint32_t number;
	} rows[] = {
			{"7E0", 16, 0x7E0},
			{"0x7e0", 16, 0x7E0},
			{"0X7E0", 16, 0x7E0},
			{"18DA10F1", 16, 0x18DA10F1},
			{" 12", 10, 12},
			{"012", 10, 12},
			{"12x", 10, 12},
			{"", 16, 0},
			{"x", 16, 0},
			{"-1", 10, 0xFFFFFFFF},
			{"-5", 10, 0xFFFFFFFB},
			{"4294967295", 10, 0xFFFFFFFF},
			{"4294967296", 10, 0xFFFFFFFF},
			{"-4294967296", 10, 0xFFFFFFFF},
			{"100000019", 16, 0xFFFFFFFF},
			{"99999999999999999999999999", 10, 0xFFFFFFFF},
			{"-99999999999999999999999999", 10, 0xFFFFFFFF},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		EXPECT_EQ(request_number(row.text, row.base), row.number);
	}
}
