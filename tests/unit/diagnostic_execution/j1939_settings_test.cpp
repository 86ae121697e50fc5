#include "movra_fleet/diagnostic_execution/j1939_settings.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/captured_output.h"
#include "support/fail_nth.h"

namespace
{

using texts = std::vector<std::string>;
using owned = std::unique_ptr<j1939_settings, decltype(&free_j1939_settings)>;

owned parse(const std::string &text)
{
	json_object *object = json_tokener_parse(text.c_str());
	EXPECT_NE(object, nullptr) << text;
	owned settings(parse_j1939_settings(object), free_j1939_settings);
	json_object_put(object); // the settings keep copies
	return settings;
}

const std::string one_signal = R"({"name":"a","start_bit":"0","bitlength":"8","offset":"0","factor":"1"})";

std::string with_signals(const std::string &signals)
{
	return R"({"ifname":"can0","id":"18FEDA00","timeout":"5","signal":)" + signals + "}";
}

}

TEST(j1939_settings, keeps_what_the_request_says)
{
	owned settings = parse(
			R"({"ifname":"can1","id":"18FEDA00","timeout":"5000","signal":[
				{"name":"major","start_bit":"8","bitlength":"4","offset":"3","factor":"2"},
				{"name":"minor","start_bit":"12","bitlength":"32","offset":"0","factor":"1"}]})");
	ASSERT_NE(settings, nullptr);
	EXPECT_STREQ(settings->ifname, "can1");
	EXPECT_EQ(settings->id, 0x18FEDA00u);
	EXPECT_EQ(settings->timeout, 5000u);
	const j1939_signal *major = settings->signals;
	ASSERT_NE(major, nullptr);
	EXPECT_STREQ(major->name, "major");
	EXPECT_EQ(major->start_bit, 8u);
	EXPECT_EQ(major->bitlength, 4u);
	EXPECT_EQ(major->offset, 3);
	EXPECT_EQ(major->factor, 2.0);
	EXPECT_EQ(major->big_endian, 0);
	ASSERT_NE(major->next, nullptr);
	EXPECT_STREQ(major->next->name, "minor");
	EXPECT_EQ(major->next->start_bit, 12u);
	EXPECT_EQ(major->next->bitlength, 32u);
	EXPECT_EQ(major->next->next, nullptr);
}

TEST(j1939_settings, takes_numbers_for_texts_and_texts_for_numbers)
{
	owned settings = parse(
			R"({"ifname":7,"id":1234,"timeout":5,"signal":[
				{"name":true,"start_bit":8,"bitlength":4,"offset":3,"factor":2}]})");
	ASSERT_NE(settings, nullptr);
	EXPECT_STREQ(settings->ifname, "7");
	EXPECT_EQ(settings->id, 0x1234u);
	EXPECT_EQ(settings->timeout, 5u);
	EXPECT_STREQ(settings->signals->name, "true");
	EXPECT_EQ(settings->signals->start_bit, 8u);
}

TEST(j1939_settings, reads_whole_numbers)
{
	const struct {
		const char *text;
		double factor;
		int32_t offset;
	} rows[] = {
			{"\"0.5\"", 0, 0},
			{"0.5", 0, 0},
			{"\"3.9\"", 3, 3},
			{"\"\"", 0, 0},
			{"\"x\"", 0, 0},
			{"\"010\"", 10, 10},
			{"\"-5\"", 4294967291.0, -5},
			{"\"4294967295\"", 4294967295.0, -1},
			{"\"4294967296\"", 4294967295.0, -1}, // the largest there is
			{"\"99999999999999999999999\"", 4294967295.0, -1},
			{"{}", 0, 0},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		owned settings = parse(with_signals(std::string(R"([{"name":"a","start_bit":0,"bitlength":8,"offset":)") +
				row.text + ",\"factor\":" + row.text + "}]"));
		ASSERT_NE(settings, nullptr);
		EXPECT_EQ(settings->signals->factor, row.factor);
		EXPECT_EQ(settings->signals->offset, row.offset);
	}
}

TEST(j1939_settings, keeps_a_start_beyond_32_bits_outside_of_the_frame)
{
	owned settings = parse(with_signals(
			R"([{"name":"a","start_bit":"4294967296","bitlength":"4294967304","offset":"0","factor":"1"}])"));
	ASSERT_NE(settings, nullptr);
	EXPECT_EQ(settings->signals->start_bit, 0xFFFFFFFFu);
	EXPECT_EQ(settings->signals->bitlength, 0xFFFFFFFFu);
}

TEST(j1939_settings, may_have_no_signals)
{
	owned settings = parse(with_signals("[]"));
	ASSERT_NE(settings, nullptr);
	EXPECT_EQ(settings->signals, nullptr);
}

TEST(j1939_settings, needs_every_key)
{
	const struct {
		const char *what;
		std::string text;
		const char *error;
	} rows[] = {
			{"nothing", "{}", "no 'ifname' key in JSON"},
			{"no object", "[]", "no 'ifname' key in JSON"},
			{"ifname null", R"({"ifname":null})", "no 'ifname' key in JSON"},
			{"no id", R"({"ifname":"can0","timeout":"5","signal":[]})", "no 'id' key in JSON"},
			{"id null", R"({"ifname":"can0","id":null,"timeout":"5","signal":[]})", "no 'id' key in JSON"},
			{"no timeout", R"({"ifname":"can0","id":"1","signal":[]})", "no 'timeout' key in JSON"},
			{"no signal", R"({"ifname":"can0","id":"1","timeout":"5"})", "no 'signal' key in JSON"},
			{"signal null", with_signals("null"), "no 'signal' key in JSON"},
			{"signal no list", with_signals(one_signal), "no 'signal' key in JSON"},
			{"signal a text", with_signals("\"a\""), "no 'signal' key in JSON"},
			{"an empty signal", with_signals("[{}]"), "no 'name' key in JSON"},
			{"a signal that is null", with_signals("[null]"), "no 'name' key in JSON"},
			{"a signal that is a number", with_signals("[5]"), "no 'name' key in JSON"},
			{"no start_bit", with_signals(R"([{"name":"a","bitlength":"8","offset":"0","factor":"1"}])"),
					"no 'start_bit' key in JSON"},
			{"no bitlength", with_signals(R"([{"name":"a","start_bit":"0","offset":"0","factor":"1"}])"),
					"no 'bitlength' key in JSON"},
			{"no offset before no factor", with_signals(R"([{"name":"a","start_bit":"0","bitlength":"8"}])"),
					"no 'offset' key in JSON"},
			{"no factor", with_signals(R"([{"name":"a","start_bit":"0","bitlength":"8","offset":"0"}])"),
					"no 'factor' key in JSON"},
			{"the second signal", with_signals("[" + one_signal + ",{}]"), "no 'name' key in JSON"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		captured_output output;
		EXPECT_EQ(parse(row.text), nullptr);
		EXPECT_EQ(output.messages(), texts{row.error});
		EXPECT_TRUE(output.has_line("ERR", "movra_fleet", row.error));
	}
}

TEST(j1939_settings, takes_100000_signals)
{
	std::string signals = "[" + one_signal;
	for (int i = 1; i < 100'000; ++i)
		signals += "," + one_signal;
	owned settings = parse(with_signals(signals + "]"));
	ASSERT_NE(settings, nullptr);
	size_t count = 0;
	for (const j1939_signal *signal = settings->signals; signal != nullptr; signal = signal->next)
		++count;
	EXPECT_EQ(count, 100'000u);
}

TEST(j1939_settings, fails_cleanly_whatever_allocation_fails)
{
	for (const char *function : {"calloc", "strdup"})
		for (unsigned nth = 1;; ++nth) {
			SCOPED_TRACE(std::string(function) + " " + std::to_string(nth));
			captured_output output;
			fail_nth failure(function, nth);
			owned settings = parse(with_signals("[" + one_signal + "," + one_signal + "]"));
			if (!failure.fired()) {
				EXPECT_NE(settings, nullptr);
				EXPECT_EQ(nth, 4u); // the settings and two signals, each a record and a text
				break;
			}
			EXPECT_EQ(settings, nullptr);
			EXPECT_EQ(output.messages("ERR"), texts{"Memory Allocation failed"});
		}
}

TEST(j1939_settings, frees_nothing)
{
	free_j1939_settings(nullptr);
}
