// Which lines leave their text behind for the error reply of a job, and which do not.
#include "job_fixture.h"
#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/common/hex.h"
#include "movra_fleet/diagnostic_execution/security_access.h"
#include "movra_fleet/diagnostic_execution/tester_present.h"
#include "movra_fleet/diagnostic_execution/uds_exchange.h"
#include "support/fail_nth.h"

namespace
{

class last_error : public job_fixture
{
protected:
	last_error()
	{
		FLEET_ERR("an older error");
	}
	void query(int32_t kind, const char *json)
	{
		json_object_put(job->version_query);
		job->version_kind = kind;
		job->version_query = json_tokener_parse(json);
	}
	// Runs the job and expects only the error reply with this cause, as JSON has it.
	void expect_told(const std::string &cause)
	{
		agent.forget_replies();
		EXPECT_EQ(execute_diag_job(agent.ctx, job), -1);
		EXPECT_EQ(agent.replies(),
				texts{"{ \"type\": \"movra.quillet-query-update\", \"reply-to\": \"req-42\", \"body\": { \"error\": { "
					  "\"error-type\": \"UDS_NO_RESPONSE\", \"uds-nrc\": \"" +
						cause + "\" } } }"});
	}
	static std::string text()
	{
		char scratch[log_scratch_size] = "";
		log_scratch_read(scratch);
		return scratch;
	}
	void settings(const char *location)
	{
		job->security = static_cast<security_access_config *>(calloc(1, sizeof(security_access_config)));
		job->security->location = location != nullptr ? strdup(location) : nullptr;
		job->security->script = strdup("seed");
	}
};

constexpr const char plugin[] = FAKE_PLUGIN_DIRECTORY "/fake_ecusecalgo";

}

TEST_F(last_error, of_an_exchange_is_what_ended_it)
{
	const struct {
		const char *what;
		std::vector<fake_answer> answers;
		const char *text;
	} rows[] = {
			{"positive", {{0x62, 0x01}}, "an older error"},
			{"pending, then positive", {{0x7F, 0x22, 0x78}, {0x62, 0x01}}, "an older error"},
			{"refused", {{0x7F, 0x22, 0x31}}, "Negative Response 22\n"},
			{"answer to something else", {{0x71, 0x0A, 0xBC}}, "Invalid Response 71 a bc\n"},
			{"no answer", {}, "recv_diag_command failed"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		FLEET_ERR("an older error");
		ecu.answers(row.answers);
		add_test_command(job, {0x22, 0xF1});
		EXPECT_EQ(run_uds_commands(agent.ctx, job), 0);
		EXPECT_EQ(text(), row.text);
	}
}

TEST_F(last_error, of_a_command_that_cannot_be_sent_says_so)
{
	ecu.send_results = {-1};
	add_test_command(job, {0x22});
	EXPECT_EQ(run_uds_commands(agent.ctx, job), 0);
	EXPECT_EQ(text(), "send_diag_command failed");
}

TEST_F(last_error, is_not_formed_below_the_level_of_errors)
{
	verbosity_scope silent(-1);
	ecu.available = 0;
	EXPECT_EQ(execute_diag_job(agent.ctx, job), -1);
	EXPECT_EQ(text(), "an older error");
}

TEST_F(last_error, is_left_alone_by_a_key_that_was_sent)
{
	settings(plugin);
	EXPECT_EQ(security_access_exchange(job, cfg, 1, 1), 0);
	EXPECT_EQ(text(), "an older error");
}

TEST_F(last_error, of_a_key_exchange_is_what_failed)
{
	EXPECT_EQ(security_access_exchange(job, cfg, 1, 1), -1);
	EXPECT_EQ(text(), "No Security Algorithm information found");

	settings(nullptr);
	EXPECT_EQ(security_access_exchange(job, cfg, 1, 1), -1);
	EXPECT_EQ(text(), "No Security Algorithm location found");
}

TEST_F(last_error, of_a_missing_plugin_is_the_loaders_text)
{
	settings("/nowhere");
	EXPECT_EQ(security_access_exchange(job, cfg, 1, 1), -1);
	EXPECT_THAT(text(), testing::StartsWith("/nowhere/libecusecalgo.so: cannot open"));
}

TEST_F(last_error, of_a_key_that_cannot_be_sent_says_so)
{
	settings(plugin);
	ecu.send_results = {-1};
	EXPECT_EQ(security_access_exchange(job, cfg, 1, 1), -1);
	EXPECT_EQ(text(), "Security key could not sent to ECU!!");
}

TEST_F(last_error, may_be_a_warning_of_the_keep_alive)
{
	ecu.send_results = {-1};
	EXPECT_EQ(send_tester_present(cfg), 0);
	EXPECT_EQ(text(), "Unable to send testr presnet message\n");

	EXPECT_EQ(send_tester_present(cfg), 0);
	EXPECT_EQ(text(), "Unable to received message\n");
}

TEST_F(last_error, is_left_alone_by_the_labels_of_a_released_job)
{
	diag_job *queued = new_test_job();
	add_test_transport(queued);
	add_test_command(queued, {0x22});
	ecu.answers({{0x62}});
	ASSERT_TRUE(pending_jobs_append(agent.ctx, queued));
	diag_job_worker(agent.ctx);
	EXPECT_EQ(text(), "an older error");
}

TEST_F(last_error, of_bytes_that_cannot_be_shown_is_the_size_that_could_not_be_had)
{
	const uint8_t bytes[3] = {};
	fail_nth failure("calloc", 1, ENOMEM, fail_nth::this_thread);
	EXPECT_EQ(bytes_to_hex_string(bytes, sizeof bytes), nullptr);
	EXPECT_EQ(text(), "Memory Allocation failed 8\n");
}

TEST_F(last_error, of_a_version_by_uds_is_what_the_requester_is_told)
{
	const struct {
		const char *what;
		int available, up, init, send;
		std::vector<fake_answer> answers;
		const char *cause;
	} rows[] = {
			{"interface missing", 0, 1, 0, 0, {}, "can0 is not available"},
			{"interface down", 1, 0, 0, 0, {}, "can0 is not UP"},
			{"no channel", 1, 1, -1, 0, {}, "Unable open can port"},
			{"not sent", 1, 1, 0, -1, {}, "send_diag_command failed"},
			{"silent", 1, 1, 0, 0, {}, "recv_diag_command failed"},
			{"pending, then silent", 1, 1, 0, 0, {{0x7F, 0x22, 0x78}}, "recv_diag_command failed"},
			{"refused", 1, 1, 0, 0, {{0x7F, 0x22, 0x31}}, "Negative Response 22\\n"},
			{"strange", 1, 1, 0, 0, {{0x6E, 0xF1, 0x89}}, "Invalid Response 6e f1 89\\n"},
			{"an answer without a version", 1, 1, 0, 0, {{0x50, 0x03}}, "an older error"},
	};
	verbosity_scope all(LOG_D2BG);
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		query(VERSION_UDS, row.answers.size() == 1 && row.answers[0].bytes[0] == 0x50 ? "[\"1003\"]" : "[\"22F189\"]");
		ecu.available = row.available;
		ecu.up = row.up;
		ecu.init_results = {row.init};
		ecu.send_results = {row.send};
		ecu.answers(row.answers);
		FLEET_ERR("an older error");
		expect_told(row.cause);
	}
}

TEST_F(last_error, of_a_version_by_j1939_is_what_the_requester_is_told)
{
	const struct {
		const char *what, *query;
		int port;
		const char *cause;
	} rows[] = {
			{"a key is missing", R"({"ifname":"can5","timeout":"5","signal":[]})", 0,
					"unable to parse j1939 version info"},
			{"no port", R"({"ifname":"can5","id":"18FEDA00","timeout":"5","signal":[]})", -1,
					"Unable to open can port on can5 bus\\n"},
			{"no frame", R"({"ifname":"can5","id":"18FEDA00","timeout":"5","signal":[]})", 0, "Unable to read Version"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		query(VERSION_J1939, row.query);
		ecu.port_results = {row.port};
		expect_told(row.cause);
	}
}

TEST_F(last_error, is_the_last_text_formed_also_when_a_version_was_read)
{
	query(VERSION_UDS, "[\"22F189\"]");
	const struct {
		fake_bytes answer;
		const char *text;
	} rows[] = {{{0x62, 0xF1, 0x89, 'V'}, "an older error"}, {{0x62, 0xF1, 0x89, 0xFF}, "String is not UTF-8\n"}};
	verbosity_scope all(LOG_D2BG);
	for (const auto &row : rows) {
		ecu.answers({{0x7F, 0x22, 0x78}, fake_answer(row.answer)});
		EXPECT_EQ(execute_diag_job(agent.ctx, job), 0);
		EXPECT_EQ(text(), row.text);
	}

	// A fixed text at INFO counts, a line of the signal decoding does not.
	query(VERSION_J1939, R"({"ifname":"can5","id":"18FEDA00","timeout":"5","signal":[
		{"name":"s","start_bit":"0","bitlength":"33","offset":"0","factor":"1"}]})");
	ecu.frames(0x18FEDA00, {{0x01}});
	EXPECT_EQ(execute_diag_job(agent.ctx, job), 0);
	EXPECT_TRUE(output.has_line("ERR", "can_parser", "Could not compute BitMask"));
	EXPECT_EQ(text(), "Using J1939\n");
}
