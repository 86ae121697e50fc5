#include "movra_fleet/replies/version_reply.h"

#include <gtest/gtest.h>

#include "movra_fleet/diagnostic_execution/job_worker.h"
#include "support/captured_output.h"
#include "support/connected_agent.h"
#include "support/fail_nth.h"

namespace
{

class version_reply : public testing::Test
{
protected:
	~version_reply() override
	{
		free_job_contents(job);
		free(job);
	}
	int send(const char *version = "0102")
	{
		output.clear();
		return send_version_reply(agent.ctx, job, version);
	}

	captured_output output;
	connected_agent agent;
	diag_job *job = new_test_job();
};

}

TEST_F(version_reply, is_the_text_in_the_envelope_sent_to_the_requester)
{
	EXPECT_EQ(send(), 0);

	ASSERT_EQ(fake_bus::sent().size(), 1u);
	EXPECT_EQ(fake_bus::last_sent().text,
			"{ \"type\": \"movra.quillet-query-update\", \"reply-to\": \"req-42\", \"body\": { \"version\": \"0102\", "
			"\"targetAddress\": \"7E0\" } }");
	EXPECT_EQ(fake_bus::last_sent().destination, std::vector<fake_bus::address>{fake_bus::unit("FLEET-1")});
}

TEST_F(version_reply, takes_any_text)
{
	const struct {
		const char *version, *shown;
	} rows[] = {{"", ""}, {"a/b", "a\\/b"}, {"1.4\n", "1.4\\n"}, {"\xC3\xA4", "\xC3\xA4"}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.shown);
		EXPECT_EQ(send(row.version), 0);
		EXPECT_NE(fake_bus::last_sent().text.find("{ \"version\": \"" + std::string(row.shown) + "\", "),
				std::string::npos);
	}
}

TEST_F(version_reply, is_dropped_with_its_line_when_a_step_fails)
{
	const struct {
		const char *function;
		unsigned nth;
		const char *text;
	} rows[] = {
			{"json_object_new_object", 1, "Could not create JSON 'body' message"},
			{"json_object_new_object", 2, "COuld not create JSON message"},
			{"json_object_new_string", 1, "Could not add 'uds' to JSON"},
			{"json_object_new_string", 2, "Could not add 'uds' to JSON"},
			{"json_object_new_string", 3, "Could not add 'type' to JSON"},
			{"json_object_new_string", 4, "Could not add 'reply-to' to JSON"},
			{"json_object_object_add", 1, "Could not add 'uds' to JSON"},
			{"json_object_object_add", 2, "Could not add 'uds' to JSON"},
			{"json_object_object_add", 3, "Could not add 'type' to JSON"},
			{"json_object_object_add", 4, "Could not add 'reply-to' to JSON"},
			{"json_object_object_add", 5, "Could not add 'body' to JSON"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(std::string(row.function) + " " + std::to_string(row.nth));
		fail_nth failure(row.function, row.nth);
		EXPECT_EQ(send(), -1);
		EXPECT_TRUE(failure.fired());
		EXPECT_EQ(output.messages(), std::vector<std::string>{row.text});
		EXPECT_TRUE(output.has_line("ERR", "movra_fleet", row.text));
		EXPECT_EQ(fake_bus::sent().size(), 0u);
	}
}

TEST_F(version_reply, has_no_other_step_that_can_fail)
{
	const struct {
		const char *function;
		unsigned calls;
	} rows[] = {{"json_object_new_object", 2}, {"json_object_new_string", 4}, {"json_object_object_add", 5}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		fail_nth count(row.function, 0);
		EXPECT_EQ(send(), 0);
		EXPECT_EQ(count.calls(), row.calls);
	}
}
