#include "movra_fleet/replies/error_reply.h"

#include <gtest/gtest.h>

#include "support/captured_output.h"
#include "support/connected_agent.h"
#include "support/fail_nth.h"

namespace
{

class error_reply : public testing::Test
{
protected:
	~error_reply() override
	{
		for (char *text : {job->reply_id, job->source_address, job->target_address})
			free(text);
		free(job);
	}
	int send(const char *nrc = "Invalid UDS Information, check for data-record")
	{
		output.clear();
		return send_error_reply(agent.ctx, job, nrc, "UDS_NO_RESPONSE");
	}

	captured_output output;
	connected_agent agent;
	diag_job *job = new_test_job();
};

}

TEST_F(error_reply, is_the_error_in_the_envelope_sent_to_the_requester)
{
	EXPECT_EQ(send(), 0);

	ASSERT_EQ(fake_bus::sent().size(), 1u);
	fake_bus::sent_message message = fake_bus::last_sent();
	EXPECT_EQ(message.text,
			"{ \"type\": \"movra.quillet-query-update\", \"reply-to\": \"req-42\", \"body\": { \"error\": { "
			"\"error-type\": \"UDS_NO_RESPONSE\", \"uds-nrc\": \"Invalid UDS Information, check for data-record\" } } "
			"}");
	EXPECT_EQ(message.destination, std::vector<fake_bus::address>{fake_bus::unit("FLEET-1")});
	EXPECT_EQ(message.content_type, "application/json");
}

TEST_F(error_reply, carries_the_cause_as_json_writes_it)
{
	const struct {
		const char *cause, *shown;
	} rows[] = {
			{"a/b", "a\\/b"},
			{"Negative Response 22\n", "Negative Response 22\\n"},
			{"say \"no\"", "say \\\"no\\\""},
			{"", ""},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.cause);
		EXPECT_EQ(send(row.cause), 0);
		EXPECT_NE(fake_bus::last_sent().text.find("\"uds-nrc\": \"" + std::string(row.shown) + "\" } } }"),
				std::string::npos)
				<< fake_bus::last_sent().text;
	}
}

TEST_F(error_reply, without_a_requester_fails_in_the_bus_client_only)
{
	free(job->source_address);
	job->source_address = nullptr;
	fake_bus::script("tervbus_chain_address", -1);
	EXPECT_EQ(send(), 0);
	EXPECT_EQ(fake_bus::sent().size(), 0u);
	ASSERT_EQ(output.messages("ERR").size(), 1u);
	EXPECT_EQ(output.messages("ERR")[0].find("Failed to get address for "), 0u);
}

TEST_F(error_reply, is_dropped_with_its_line_when_a_step_fails)
{
	const struct {
		const char *function;
		unsigned nth;
		const char *text;
	} rows[] = {
			{"json_object_new_object", 1, "Memory Allocation failed"},
			{"json_object_new_object", 2, "Memory Allocation failed"},
			{"json_object_new_object", 3, "Memory Allocation failed"},
			{"json_object_new_string", 1, "Could not add 'error-type'"},
			{"json_object_new_string", 2, "Could not add 'error-type'"},
			{"json_object_new_string", 3, "Could not add 'type'"},
			{"json_object_new_string", 4, "Could not add 'reply-to'"},
			{"json_object_object_add", 1, "Could not add 'error-type'"},
			{"json_object_object_add", 2, "Could not add 'error-type'"},
			{"json_object_object_add", 3, "Could not add 'error'"},
			{"json_object_object_add", 4, "Could not add 'type'"},
			{"json_object_object_add", 5, "Could not add 'reply-to'"},
			{"json_object_object_add", 6, "Could not add 'body'"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(std::string(row.function) + " " + std::to_string(row.nth));
		fail_nth failure(row.function, row.nth);
		EXPECT_EQ(send(), 0);
		EXPECT_TRUE(failure.fired());
		EXPECT_EQ(output.messages(), std::vector<std::string>{row.text});
		EXPECT_TRUE(output.has_line("ERR", "movra_fleet", row.text));
		EXPECT_EQ(fake_bus::sent().size(), 0u);
	}
}

TEST_F(error_reply, has_no_other_step_that_can_fail)
{
	const struct {
		const char *function;
		unsigned calls;
	} rows[] = {{"json_object_new_object", 3}, {"json_object_new_string", 4}, {"json_object_object_add", 6}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		fail_nth count(row.function, 0);
		EXPECT_EQ(send(), 0);
		EXPECT_EQ(count.calls(), row.calls);
	}
}

TEST_F(error_reply, needs_a_reply_id)
{
	free(job->reply_id);
	job->reply_id = nullptr;
	EXPECT_EQ(send(), 0);
	EXPECT_EQ(output.messages(), std::vector<std::string>{"Could not add 'reply-to'"});
	EXPECT_EQ(fake_bus::sent().size(), 0u);
}
