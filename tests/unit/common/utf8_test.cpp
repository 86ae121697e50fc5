#include "movra_fleet/common/utf8.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/captured_output.h"

namespace
{

using texts = std::vector<std::string>;

int check(const std::string &text, uint32_t length = 1)
{
	return is_valid_utf8(reinterpret_cast<const uint8_t *>(text.c_str()), length);
}

}

TEST(is_valid_utf8, accepts_text)
{
	const struct {
		const char *what;
		const char *text;
	} rows[] = {
			{"nothing", ""},
			{"ASCII", "Version 1.4 ~"},
			{"TAB, LF and CR", "a\tb\nc\r"},
			{"the first and the last of two bytes", "\xC2\x80\xDF\xBF"},
			{"the first of three bytes", "\xE0\xA0\x80"},
			{"E0 with its last", "\xE0\xBF\xBF"},
			{"E1 to EC", "\xE1\x80\x80\xEC\xBF\xBF"},
			{"before the surrogates", "\xED\x80\x80\xED\x9F\xBF"},
			{"after the surrogates", "\xEE\x80\x80\xEF\xBF\xBF"},
			{"the first of four bytes", "\xF0\x90\x80\x80\xF0\xBF\xBF\xBF"},
			{"F1 to F3", "\xF1\x80\x80\x80\xF3\xBF\xBF\xBF"},
			{"the last code point", "\xF4\x8F\xBF\xBF"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		captured_output output;
		EXPECT_EQ(check(row.text), 1);
		EXPECT_EQ(output.messages(), texts{});
	}
}

TEST(is_valid_utf8, refuses_what_is_no_text)
{
	const struct {
		const char *what;
		const char *text;
	} rows[] = {
			{"a control character", "a\x01"},
			{"backspace", "\x08"},
			{"vertical tab", "\x0B"},
			{"form feed", "\x0C"},
			{"shift out", "\x0E"},
			{"the last control character", "\x1F"},
			{"delete", "\x7F"},
			{"a stray continuation", "\x80"},
			{"the last stray continuation", "a\xBF"},
			{"an overlong zero", "\xC0\x80"},
			{"an overlong slash", "\xC1\xAF"},
			{"two bytes cut", "\xC2"},
			{"two bytes, the second none", "\xC2 "},
			{"two bytes, the second too large", "\xC2\xC0"},
			{"overlong in three bytes", "\xE0\x9F\xBF"},
			{"three bytes cut after one", "\xE1"},
			{"three bytes cut after two", "\xE1\x80"},
			{"three bytes, the third none", "\xE1\x80 "},
			{"the first surrogate", "\xED\xA0\x80"},
			{"the last surrogate", "\xED\xBF\xBF"},
			{"overlong in four bytes", "\xF0\x8F\xBF\xBF"},
			{"four bytes cut after three", "\xF1\x80\x80"},
			{"four bytes, the fourth none", "\xF1\x80\x80 "},
			{"beyond the last code point", "\xF4\x90\x80\x80"},
			{"F5", "\xF5\x80\x80\x80"},
			{"FF", "\xFF"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		captured_output output;
		EXPECT_EQ(check(row.text), 0);
		EXPECT_EQ(output.messages(), texts{"String is not UTF-8"});
		EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "String is not UTF-8"));
	}
}

TEST(is_valid_utf8, refuses_no_bytes_and_lengths_that_end_in_a_zero_byte)
{
	for (uint32_t length : {0u, 256u, 0xFFFFFF00u}) {
		SCOPED_TRACE(length);
		captured_output output;
		EXPECT_EQ(check("text", length), 0);
		EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "Invalid parameter"));
	}
	captured_output output;
	EXPECT_EQ(is_valid_utf8(nullptr, 4), 0);
	EXPECT_EQ(output.messages("ERR"), texts{"Invalid parameter"});
}

TEST(is_valid_utf8, scans_to_the_zero_byte_whatever_the_length)
{
	captured_output output;
	EXPECT_EQ(check("abc\x7F", 1), 0);
	EXPECT_EQ(check(std::string("abc\0\x7F", 5), 5), 1);
	EXPECT_EQ(check("abc", 257), 1);
}

TEST(is_valid_utf8, reads_nothing_behind_the_zero_byte)
{
	for (const char *text : {"\xC2", "\xE1\x80", "\xF1\x80\x80", ""}) {
		captured_output output;
		size_t size = strlen(text) + 1;
		std::vector<uint8_t> exact(size); // the address sanitizer sees a read behind it
		memcpy(exact.data(), text, size);
		EXPECT_EQ(is_valid_utf8(exact.data(), 1), size == 1 ? 1 : 0);
	}
}
