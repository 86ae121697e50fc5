#include "movra_fleet/request_intake/security_settings.h"

#include "support/fail_nth.h"
#include "unit/request_intake/intake_fixture.h"

namespace
{

class security_settings : public testing::Test
{
protected:
	~security_settings() override
	{
		free_job_contents(&job);
	}
	int parse(const std::string &text)
	{
		json_object *settings = json_tokener_parse(text.c_str());
		int result = parse_security_config(&job, settings);
		json_object_put(settings);
		return result;
	}

	captured_output log;
	diag_job job = {};
};

constexpr const char complete[] = R"({"level":"11","script":"S","location":"/opt/key"})";

}

TEST_F(security_settings, are_copied_into_the_job)
{
	EXPECT_EQ(parse(complete), 0);

	ASSERT_NE(job.security, nullptr);
	EXPECT_EQ(job.security->level, 0x11u);
	EXPECT_STREQ(job.security->script, "S");
	EXPECT_STREQ(job.security->location, "/opt/key");
	EXPECT_TRUE(log.messages().empty());
}

TEST_F(security_settings, have_a_hexadecimal_level)
{
	struct {
		const char *text;
		uint32_t level;
	} rows[] = {{"3", 3}, {"0x3", 3}, {"11", 17}, {"", 0}, {"zz", 0}, {"1FF", 0x1FF}, {"FFFFFFFFFFFF", 0xFFFFFFFF}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		EXPECT_EQ(parse(R"({"script":"","location":"","level":")" + std::string(row.text) + "\"}"), 0);
		EXPECT_EQ(job.security->level, row.level);
	}
}

TEST_F(security_settings, report_only_the_first_missing_key_and_leave_nothing)
{
	struct {
		const char *settings;
		const char *text;
	} rows[] = {
			{"{}", "level not found in JSON message"},
			{"null", "level not found in JSON message"},
			{R"({"level":17,"script":"S","location":"L"})", "level not found in JSON message"},
			{R"({"script":"S","location":"L"})", "level not found in JSON message"},
			{R"({"level":"1"})", "script not found in JSON message"},
			{R"({"level":"1","location":"L"})", "script not found in JSON message"},
			{R"({"level":"1","script":null,"location":"L"})", "script not found in JSON message"},
			{R"({"level":"1","script":"S"})", "location not found in JSON message"},
			{R"({"level":"1","script":"S","location":{}})", "location not found in JSON message"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.settings);
		log.clear();
		EXPECT_EQ(parse(row.settings), -1);
		EXPECT_EQ(log.messages("ERR"), (strings{row.text}));
		EXPECT_TRUE(log.has_line("ERR", "movra_fleet", row.text));
		EXPECT_EQ(job.security, nullptr);
	}
}

TEST_F(security_settings, tell_a_missing_key_at_info_too_and_look_for_none_behind_it)
{
	EXPECT_EQ(parse(R"({"location":"L"})"), -1);

	EXPECT_EQ(log.messages("INFO"), (strings{R"(No level property in { "location": "L" })"}));
}

TEST_F(security_settings, replace_those_read_before)
{
	EXPECT_EQ(parse(complete), 0);
	EXPECT_EQ(parse(R"({"level":"2","script":"T","location":"/other"})"), 0);

	EXPECT_EQ(job.security->level, 2u);
	EXPECT_STREQ(job.security->script, "T");
	EXPECT_STREQ(job.security->location, "/other");
}

TEST_F(security_settings, that_fail_leave_none_of_those_read_before)
{
	EXPECT_EQ(parse(complete), 0);
	EXPECT_EQ(parse("{}"), -1);

	EXPECT_EQ(job.security, nullptr);
}

TEST_F(security_settings, fail_with_whichever_allocation_fails)
{
	struct {
		const char *function;
		unsigned nth;
	} rows[] = {{"calloc", 1}, {"strdup", 1}, {"strdup", 2}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		log.clear();
		fail_nth failure(row.function, row.nth);
		EXPECT_EQ(parse(complete), -1);
		EXPECT_TRUE(failure.fired());
		EXPECT_EQ(job.security, nullptr);
		EXPECT_EQ(log.messages("ERR"), (strings{"Memory Allocation failed"}));
	}
}
