#include "json_match.h"

#include <memory>

#include <gtest/gtest.h>

namespace
{

using json_pointer = std::unique_ptr<json_object, int (*)(json_object *)>;

std::string difference(const char *expected, const char *actual)
{
	json_pointer left(json_tokener_parse(expected), json_object_put);
	json_pointer right(json_tokener_parse(actual), json_object_put);
	return json_difference(left.get(), right.get());
}

struct row {
	const char *name;
	const char *expected;
	const char *actual;
	const char *difference;
};

constexpr row rows[] = {
		{"equal", R"({"a": [1, "x", {"b": null}]})", R"({"a": [1, "x", {"b": null}]})", ""},
		{"members in another order", R"({"a": 1, "b": 2})", R"({"b": 2, "a": 1})", ""},
		{"any text", R"({"time": "*"})", R"({"time": "12:00"})", ""},
		{"any text but none", R"({"time": "*"})", R"({"time": ""})", R"(reply.time is "", expected is "*")"},
		{"any text but a number", R"({"time": "*"})", R"({"time": 1})", R"(reply.time is 1, expected is "*")"},
		{"another text", R"({"a": "x"})", R"({"a": "y"})", R"(reply.a is "y", expected is "x")"},
		{"another type", R"({"a": 1})", R"({"a": "1"})", R"(reply.a is "1", expected is 1)"},
		{"a member missing", R"({"a": 1, "b": 2})", R"({"a": 1})", "reply.b is missing"},
		{"a member too many", R"({"a": 1})", R"({"a": 1, "b": 2})", "reply.b is not expected"},
		{"an element missing", "[1, 2]", "[1]", "reply has 1 elements, expected are 2"},
		{"an element different", "[1, [2]]", "[1, [3]]", "reply[1][0] is 3, expected is 2"},
		{"no JSON at all", "{}", "{", "reply is null, expected is {}"},
};

}

TEST(json_match, tells_the_first_difference_and_where_it_is)
{
	for (const row &row : rows) {
		SCOPED_TRACE(row.name);
		EXPECT_EQ(difference(row.expected, row.actual), row.difference);
	}
}
