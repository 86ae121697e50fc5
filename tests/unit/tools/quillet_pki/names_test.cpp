#include "names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

TEST(names, takes_the_names_that_units_have)
{
	for (const char *name : {"AGENT-1", "DM-CLIENT", "Unit 7", "1F.2_a", "Gerät"}) {
		SCOPED_TRACE(name);
		EXPECT_EQ(name_problem(name), "");
	}
}

TEST(names, refuses_what_topics_rules_or_folders_would_misread)
{
	const struct {
		std::string name;
		const char *problem;
	} rows[] = {
			{"", "empty"},
			{std::string(65, 'a'), "longer than 64"},
			{"a/b", "'/'"},
			{"a+b", "'+'"},
			{"a#b", "'#'"},
			{"a\nb", "control character"},
			{"a\tb", "control character"},
			{std::string("a\0b", 3), "control character"},
			{"a\x7f", "control character"},
			{"a*", "quote"},
			{"a?", "quote"},
			{"a[b]", "quote"},
			{"a\\b", "quote"},
			{"a\"b", "quote"},
			{"@a", "'@'"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		EXPECT_THAT(name_problem(row.name), HasSubstr(row.problem));
	}
}

TEST(names, takes_a_name_of_64_bytes)
{
	EXPECT_EQ(name_problem(std::string(64, 'a')), "");
}

TEST(names, refuses_a_node_whose_folder_is_taken_or_hidden)
{
	EXPECT_THAT(node_name_problem("ca"), HasSubstr("the CA"));
	EXPECT_THAT(node_name_problem("broker"), HasSubstr("the broker's identity"));
	for (const char *name : {".", "..", ".hidden"}) {
		SCOPED_TRACE(name);
		EXPECT_THAT(node_name_problem(name), HasSubstr("'.'"));
	}
}
