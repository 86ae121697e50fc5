#include "movra_fleet/common/agent_log.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/captured_output.h"
#include "support/verbosity_scope.h"

namespace
{

std::string scratch()
{
	char text[log_scratch_size] = "";
	log_scratch_read(text);
	return text;
}

struct agent_log : testing::Test {
	verbosity_scope scope{LOG_INFO};
	captured_output output;

	void SetUp() override
	{
		FLEET_ERR("before");
		output.clear();
	}
};

}

TEST_F(agent_log, forms_an_error_in_the_scratch_text_and_logs_it)
{
	FLEET_ERR("recv %s failed, %d", "command", 7);

	EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "recv command failed, 7"));
	EXPECT_EQ(scratch(), "recv command failed, 7");
}

TEST_F(agent_log, keeps_a_trailing_newline_in_the_scratch_text)
{
	FLEET_ERR("text\n");

	EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "text"));
	EXPECT_EQ(scratch(), "text\n");
}

TEST_F(agent_log, cuts_an_error_at_the_size_of_the_scratch_text)
{
	FLEET_ERR("%s", std::string(300, 'x').c_str());

	EXPECT_TRUE(output.has_line("ERR", "movra_fleet", std::string(255, 'x')));
	EXPECT_EQ(scratch(), std::string(255, 'x'));
}

TEST_F(agent_log, takes_a_fixed_text_as_it_stands)
{
	FLEET_TEXT(LOG_INFO, "100%s");

	EXPECT_TRUE(output.has_line("INFO", "movra_fleet", "100%s"));
	EXPECT_EQ(scratch(), "100%s");
}

TEST_F(agent_log, leaves_the_scratch_text_alone_for_lines_with_arguments_below_error)
{
	FLEET_LINE(LOG_INFO, "job %d", 1);

	EXPECT_TRUE(output.has_line("INFO", "movra_fleet", "job 1"));
	EXPECT_EQ(scratch(), "before");
}

TEST_F(agent_log, neither_logs_nor_forms_a_line_above_the_verbosity)
{
	verbosity = LOG_INFO;
	FLEET_TEXT(LOG_DBG, "debug");
	FLEET_LINE(LOG_DBG, "debug %d", 1);
	verbosity = LOG_FATAL;
	FLEET_ERR("error");

	EXPECT_EQ(output.text(), "");
	EXPECT_EQ(scratch(), "before");
}

TEST_F(agent_log, shows_the_line_of_the_call)
{
	FLEET_ERR("text");
	int line = __LINE__ - 1;

	EXPECT_EQ(output.records().at(0).line, line);
}

TEST_F(agent_log, keeps_the_scratch_text_whole_under_several_writers)
{
	std::vector<std::thread> writers;
	for (char letter : {'a', 'b', 'c'})
		writers.emplace_back([letter] {
			for (int round = 0; round < 200; ++round)
				FLEET_ERR("%s", std::string(200, letter).c_str());
		});
	for (int round = 0; round < 200; ++round) {
		std::string text = scratch();
		EXPECT_EQ(text.find_first_not_of(text[0]), text == "before" ? 1u : std::string::npos) << text;
	}
	for (std::thread &writer : writers)
		writer.join();
}
