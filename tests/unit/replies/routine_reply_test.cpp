#include "movra_fleet/replies/routine_reply.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "movra_fleet/diagnostic_execution/job_worker.h"
#include "support/captured_output.h"
#include "support/connected_agent.h"
#include "support/fail_nth.h"
#include "support/verbosity_scope.h"

namespace
{

class routine_reply : public testing::Test
{
protected:
	~routine_reply() override
	{
		free_job_contents(job);
		free(job);
	}
	int send()
	{
		output.clear();
		return send_routine_reply(agent.ctx, job);
	}
	void answered(const std::vector<uint8_t> &request, const std::vector<uint8_t> &response, const char *error)
	{
		uds_command *command = add_test_command(job, request);
		std::copy(response.begin(), response.end(), command->response);
		command->response_length = static_cast<uint32_t>(response.size());
		(void)snprintf(command->requested_time, sizeof command->requested_time, "2024-05-01T10:00:00Z");
		(void)snprintf(command->responded_time, sizeof command->responded_time, "2024-05-01T10:00:01Z");
		command->error = strdup(error);
	}
	size_t commands_left() const
	{
		size_t count = 0;
		for (const uds_command *command = job->commands; command != nullptr; command = command->next)
			++count;
		return count;
	}

	captured_output output;
	connected_agent agent;
	diag_job *job = new_test_job();
};

const std::string head = "{ \"type\": \"movra.quillet-query-update\", \"reply-to\": \"req-42\", \"body\": { "
						 "\"routine-response\": [";
const std::string tail = " ], \"targetAddress\": \"7E0\" } }";
const std::string unreached_31 = " { \"service\": \"0x31\", \"requested-time\": \"\", \"responded-time\": \"\", "
								 "\"response-data\": \"-\", \"error\": \"Command not executed\" }";

}

TEST_F(routine_reply, lists_a_refused_command_and_the_one_never_reached)
{
	answered({0x22, 0xF1, 0x90}, {0x7F, 0x22, 0x31}, "Negative response");
	add_test_command(job, {0x31, 0x01});

	EXPECT_EQ(send(), 0);

	EXPECT_EQ(fake_bus::last_sent().text,
			head +
					" { \"service\": \"0x22\", \"requested-time\": \"2024-05-01T10:00:00Z\", "
					"\"responded-time\": \"2024-05-01T10:00:01Z\", \"response-data\": \"7F2231\", "
					"\"error\": \"Negative response\" }," +
					unreached_31 + tail);
	EXPECT_EQ(fake_bus::last_sent().destination, std::vector<fake_bus::address>{fake_bus::unit("FLEET-1")});
	EXPECT_EQ(commands_left(), 0u);
}

TEST_F(routine_reply, shows_service_bytes_and_outcome)
{
	const struct {
		const char *what;
		std::vector<uint8_t> request, response;
		const char *error, *service, *data;
	} rows[] = {
			{"positive", {0x22, 0xF1, 0x90}, {0x62, 0xF1, 0x90, 0x41, 0x42, 0x43, 0x44}, "none", "0x22",
					"62F19041424344"},
			{"the request's service when it was refused", {0x10, 0x03}, {0x7F, 0x10, 0x12}, "Negative response", "0x10",
					"7F1012"},
			{"one digit", {0x03}, {0x43}, "none", "0x03", "43"},
			{"nothing sent", {0xBA}, {}, "send_diag_command failed", "0xBA", "-"},
			{"nothing received", {0x3E, 0x00}, {}, "recv_diag_command failed", "0x3E", "-"},
			{"a request without bytes", {}, {}, "none", "0x00", "-"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		answered(row.request, row.response, row.error);
		EXPECT_EQ(send(), 0);
		EXPECT_EQ(fake_bus::last_sent().text,
				head + " { \"service\": \"" + row.service +
						"\", \"requested-time\": \"2024-05-01T10:00:00Z\", \"responded-time\": "
						"\"2024-05-01T10:00:01Z\", \"response-data\": \"" +
						row.data + "\", \"error\": \"" + row.error + "\" }" + tail);
	}
}

TEST_F(routine_reply, shows_an_answer_that_fills_the_buffer)
{
	verbosity_scope quiet(LOG_ERR);
	answered({0x22}, std::vector<uint8_t>(4096, 0xAB), "none");
	EXPECT_EQ(send(), 0);
	EXPECT_EQ(fake_bus::last_sent().text.find("ABAB") + 2 * 4096, fake_bus::last_sent().text.find("\", \"error\""));
}

TEST_F(routine_reply, of_no_commands_has_an_empty_list)
{
	EXPECT_EQ(send(), 0);
	EXPECT_EQ(fake_bus::last_sent().text, head + tail);
}

TEST_F(routine_reply, keeps_a_job_whose_body_cannot_be_made)
{
	add_test_command(job, {0x31});
	fail_nth failure("json_object_new_object", 1);
	EXPECT_EQ(send(), -1);
	EXPECT_EQ(output.messages(), std::vector<std::string>{"Could not create JSON 'body' message"});
	EXPECT_EQ(commands_left(), 1u);
	EXPECT_EQ(fake_bus::sent().size(), 0u);
}

TEST_F(routine_reply, is_dropped_with_its_line_when_a_step_fails)
{
	const struct {
		const char *function;
		unsigned nth;
		const char *text;
	} rows[] = {
			{"json_object_new_array", 1, "Could not add 'uds' to JSON"},
			{"json_object_new_object", 3, "COuld not create JSON message"},
			{"json_object_new_string", 6, "Could not add 'uds' to JSON"},
			{"json_object_new_string", 7, "Could not add 'type' to JSON"},
			{"json_object_new_string", 8, "Could not add 'reply-to' to JSON"},
			{"json_object_object_add", 6, "Could not add 'uds' to JSON"},
			{"json_object_object_add", 7, "Could not add 'uds' to JSON"},
			{"json_object_object_add", 8, "Could not add 'type' to JSON"},
			{"json_object_object_add", 9, "Could not add 'reply-to' to JSON"},
			{"json_object_object_add", 10, "Could not add 'body' to JSON"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(std::string(row.function) + " " + std::to_string(row.nth));
		add_test_command(job, {0x31});
		fail_nth failure(row.function, row.nth);
		EXPECT_EQ(send(), -1);
		EXPECT_TRUE(failure.fired());
		EXPECT_EQ(output.messages(), std::vector<std::string>{row.text});
		EXPECT_TRUE(output.has_line("ERR", "movra_fleet", row.text));
		EXPECT_EQ(fake_bus::sent().size(), 0u);
		EXPECT_EQ(commands_left(), 0u);
	}
}

TEST_F(routine_reply, has_no_other_step_that_can_fail)
{
	const struct {
		const char *function;
		unsigned calls;
	} rows[] = {{"json_object_new_object", 3}, {"json_object_new_array", 1}, {"json_object_new_string", 8},
			{"json_object_object_add", 10}, {"json_object_array_add", 1}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		add_test_command(job, {0x31});
		fail_nth count(row.function, 0);
		EXPECT_EQ(send(), 0);
		EXPECT_EQ(count.calls(), row.calls);
	}
}

TEST_F(routine_reply, is_sent_without_what_could_not_be_added_to_an_element)
{
	const struct {
		const char *function;
		unsigned nth;
		std::string elements;
	} rows[] = {
			{"json_object_new_object", 2, unreached_31},
			{"json_object_array_add", 1, unreached_31},
			{"json_object_object_add", 3,
					" { \"service\": \"0x22\", \"requested-time\": \"\", \"response-data\": \"-\", \"error\": "
					"\"Command not executed\" }," +
							unreached_31},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		add_test_command(job, {0x22});
		add_test_command(job, {0x31});
		fail_nth failure(row.function, row.nth);
		EXPECT_EQ(send(), 0);
		EXPECT_EQ(fake_bus::last_sent().text, head + row.elements + tail);
		EXPECT_EQ(commands_left(), 0u);
	}
}

TEST_F(routine_reply, ends_its_list_at_bytes_that_cannot_be_shown)
{
	add_test_command(job, {0x31});
	answered({0x22}, {0x62, 0x01}, "none");
	add_test_command(job, {0x10});
	output.clear();
	int result = -1;
	{
		fail_nth failure("calloc", 1, ENOMEM, fail_nth::this_thread);
		result = send_routine_reply(agent.ctx, job);
	}

	EXPECT_EQ(result, 0);
	EXPECT_EQ(output.messages("ERR"), (std::vector<std::string>{"Memory Allocation failed 6", "Could not get string"}));
	EXPECT_EQ(fake_bus::last_sent().text, head + unreached_31 + tail);
	ASSERT_EQ(commands_left(), 1u);
	EXPECT_EQ(job->commands->request[0], 0x10);
}

TEST_F(routine_reply, needs_the_texts_of_its_job)
{
	free(job->target_address);
	job->target_address = nullptr;
	EXPECT_EQ(send(), -1);
	EXPECT_EQ(output.messages(), std::vector<std::string>{"Could not add 'uds' to JSON"});
}

TEST_F(routine_reply, was_handed_over_even_when_the_bus_refuses_it)
{
	fake_bus::script("tervbus_send_message", -1);
	EXPECT_EQ(send(), 0);
	EXPECT_TRUE(output.has_line("ERR", "movrabus", "Failed to send message over Movra Bus"));
}
