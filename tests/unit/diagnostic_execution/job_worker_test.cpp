#include "movra_fleet/diagnostic_execution/job_worker.h"

#include "job_fixture.h"
#include "movra_fleet/common/agent_log.h"

namespace
{

const std::string no_commands = "{ \"type\": \"movra.quillet-query-update\", \"reply-to\": \"req-42\", \"body\": { ";

std::string error_reply(const std::string &cause)
{
	return no_commands + "\"error\": { \"error-type\": \"UDS_NO_RESPONSE\", \"uds-nrc\": \"" + cause + "\" } } }";
}

// One job more than the fixture's: queued, and the list's from then on.
class job_worker : public job_fixture
{
protected:
	// Queues a job of one command with the first byte as its reply id.
	diag_job *queue(uint8_t sid, uint32_t phy_req_id = 0x7E0)
	{
		diag_job *queued = new_test_job();
		free(queued->reply_id);
		queued->reply_id = strdup(("req-" + std::to_string(sid)).c_str());
		add_test_transport(queued, phy_req_id);
		add_test_command(queued, {sid});
		EXPECT_TRUE(pending_jobs_append(agent.ctx, queued));
		return queued;
	}
	void work()
	{
		output.clear();
		diag_job_worker(agent.ctx);
	}
};

}

TEST_F(job_worker, runs_the_commands_of_a_job_and_releases_it)
{
	queue(0x22);
	ecu.answers({{0x62, 0x01}});

	work();

	ASSERT_EQ(agent.replies().size(), 1u);
	EXPECT_EQ(outcomes_of(agent.replies()[0])[0].response, "6201");
	EXPECT_EQ(log(), texts{"INFO 7E0"});
	EXPECT_EQ(pending_jobs_head(agent.ctx), nullptr);
	EXPECT_EQ(agent.ctx->pending_job_count, 0u);
	EXPECT_EQ(agent.ctx->pending_command_count, 0u);
}

TEST_F(job_worker, labels_every_ecu_of_a_released_job)
{
	diag_job *queued = queue(0x22);
	add_test_transport(queued, 0x7E1);
	transport_cfg *unnamed = add_test_transport(queued, 0x7E2);
	free(unnamed->phy_req_id_text);
	unnamed->phy_req_id_text = nullptr;
	ecu.answers({{0x62}});

	work();

	EXPECT_EQ(log(), (texts{"INFO 7E0", "INFO 7E1", "INFO "}));
}

TEST_F(job_worker, runs_jobs_in_their_order_each_after_the_one_before_is_released)
{
	diag_job *first = queue(0x22);
	diag_job *second = queue(0x31);
	std::vector<diag_job *> heads;
	ecu.on_call = [&](const fake_uds_call &call) {
		if (call.function == "send_diag_command")
			heads.push_back(pending_jobs_head(agent.ctx));
	};
	ecu.on({0x22}, {{0x62}});
	ecu.on({0x31}, {{0x71}});

	work();
	EXPECT_EQ(pending_jobs_head(agent.ctx), second);
	work();

	EXPECT_EQ(heads, (std::vector<diag_job *>{first, second}));
	ASSERT_EQ(agent.replies().size(), 2u);
	EXPECT_THAT(agent.replies()[0], testing::HasSubstr("\"reply-to\": \"req-34\""));
	EXPECT_THAT(agent.replies()[1], testing::HasSubstr("\"reply-to\": \"req-49\""));
	EXPECT_EQ(pending_jobs_head(agent.ctx), nullptr);
}

TEST_F(job_worker, releases_a_job_of_another_transport_without_running_it)
{
	queue(0x22)->transport_type = 1;
	work();
	EXPECT_EQ(ecu.names(), texts{});
	EXPECT_EQ(agent.replies(), texts{});
	EXPECT_EQ(log(), texts{"INFO 7E0"});
	EXPECT_EQ(pending_jobs_head(agent.ctx), nullptr);
}

TEST_F(job_worker, has_nothing_to_do_without_a_job)
{
	work();
	EXPECT_EQ(log(), texts{});
	EXPECT_EQ(agent.replies(), texts{});
}

TEST_F(job_worker, has_nothing_to_do_without_a_context)
{
	output.clear();
	diag_job_worker(nullptr);
	EXPECT_EQ(log(), texts{"ERR Invalid TP Cfg received"});
}

TEST_F(job_worker, answers_a_channel_that_does_not_open_with_two_replies)
{
	const struct {
		const char *what;
		int available, up, init;
		const char *cause;
	} rows[] = {
			{"interface missing", 0, 1, 1, "can0 is not available"},
			{"interface down", 1, 0, 1, "can0 is not UP"},
			{"no channel", 1, 1, -1, "Unable open can port"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		agent.forget_replies();
		ecu.available = row.available;
		ecu.up = row.up;
		ecu.init_results = {row.init};
		add_test_command(job, {0x22, 0xF1, 0x90});
		output.clear();

		EXPECT_EQ(execute_diag_job(agent.ctx, job), -1);

		ASSERT_EQ(agent.replies().size(), 2u);
		EXPECT_EQ(agent.replies()[0],
				no_commands +
						"\"routine-response\": [ { \"service\": \"0x22\", \"requested-time\": \"\", "
						"\"responded-time\": \"\", \"response-data\": \"-\", \"error\": \"Command not executed\" } ], "
						"\"targetAddress\": \"7E0\" } }");
		EXPECT_EQ(agent.replies()[1], error_reply(row.cause));
		EXPECT_EQ(log(), texts{std::string("ERR ") + row.cause});
	}
}

TEST_F(job_worker, logs_a_job_that_failed)
{
	queue(0x22);
	ecu.available = 0;
	work();
	EXPECT_EQ(log(), (texts{"ERR can0 is not available", "ERR send_message_and_wait failed", "INFO 7E0"}));
	EXPECT_EQ(agent.replies().size(), 2u);
}

TEST_F(job_worker, sends_no_error_reply_when_a_command_failed)
{
	add_test_command(job, {0x22});
	ecu.answers({{0x7F, 0x22, 0x31}});
	EXPECT_EQ(execute_diag_job(agent.ctx, job), 0);
	EXPECT_EQ(agent.replies().size(), 1u);
}

TEST_F(job_worker, runs_nothing_of_a_version_request_with_commands_and_answers_with_the_last_error)
{
	job->version_query = json_object_new_array();
	add_test_command(job, {0x22});
	FLEET_ERR("an older error");
	output.clear();

	EXPECT_EQ(execute_diag_job(agent.ctx, job), -1);

	EXPECT_EQ(ecu.names(), texts{});
	EXPECT_EQ(log(), texts{});
	EXPECT_EQ(agent.replies(), texts{error_reply("an older error")});
	EXPECT_NE(job->commands, nullptr);
}

TEST_F(job_worker, reads_a_version_for_a_version_request)
{
	job->version_kind = VERSION_UDS;
	job->version_query = json_tokener_parse("[\"22F189\"]");
	ecu.on({0x22, 0xF1, 0x89}, {{0x62, 0xF1, 0x89, '4', '.', '2'}});

	EXPECT_EQ(execute_diag_job(agent.ctx, job), 0);

	EXPECT_EQ(agent.replies(),
			texts{"{ \"type\": \"movra.quillet-query-update\", \"reply-to\": \"req-42\", \"body\": { \"version\": "
				  "\"4.2\", \"targetAddress\": \"7E0\" } }"});
}

TEST_F(job_worker, reads_dtcs_for_a_request_with_neither_version_nor_commands)
{
	job->sid = 0x19;
	job->dtc_subfunction = 0x0A;
	ecu.on({0x19, 0x0A}, {{0x59, 0x0A, 0xFF}});
	ecu.answers({fake_answer({0x59, 0x0A, 0xFF})});

	EXPECT_EQ(execute_diag_job(agent.ctx, job), 0);

	EXPECT_EQ(ecu.requests(), (std::vector<fake_bytes>{{0x19, 0x0A}}));
	EXPECT_EQ(agent.replies(),
			texts{"{ \"type\": \"movra.quillet-query-update\", \"reply-to\": \"req-42\", \"body\": { \"uds\": { "
				  "\"resp\": \"0x59\", \"subfunction\": \"UDS_REPORT_SUPPORTED_DTCS\", \"data-record\": [ { "
				  "\"phy-req-id\": \"7E0\", \"data\": \"FF\" } ] }, \"targetAddress\": \"7E0\" } }"});
}

TEST_F(job_worker, refuses_a_dtc_request_whose_data_do_not_fit_its_report)
{
	const struct {
		const char *what;
		uint32_t subfunction, length;
	} rows[] = {
			{"no report: a request without any work", 0x00, 0},
			{"too little", 0x02, 0},
			{"too much", 0x02, 2},
			{"data for a report without", 0x0A, 1},
			{"a report that is not sent", 0x18, 5},
			{"beyond the table", 0x1A, 0},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		agent.forget_replies();
		output.clear();
		job->dtc_subfunction = row.subfunction;
		job->dtc_data_length = row.length;

		EXPECT_EQ(execute_diag_job(agent.ctx, job), -1);

		EXPECT_EQ(ecu.names(), texts{});
		EXPECT_EQ(log(), texts{"ERR Invalid UDS Information, check for data-record"});
		EXPECT_EQ(agent.replies(), texts{error_reply("Invalid UDS Information, check for data-record")});
	}
}

TEST_F(job_worker, answers_a_version_that_cannot_be_read_with_the_last_error)
{
	job->version_kind = VERSION_UDS;
	job->version_query = json_tokener_parse("[\"22F189\"]");
	ecu.up = 0;
	EXPECT_EQ(execute_diag_job(agent.ctx, job), -1);
	EXPECT_EQ(agent.replies(), texts{error_reply("can0 is not UP")});
}

TEST_F(job_worker, answers_dtcs_that_cannot_be_read_with_the_last_error)
{
	job->sid = 0x19;
	job->dtc_subfunction = 0x0A;
	EXPECT_EQ(execute_diag_job(agent.ctx, job), -1);
	EXPECT_EQ(agent.replies(), texts{error_reply("send_dtc_response_to_bridge failed")});
}

TEST_F(job_worker, sends_both_replies_to_the_requester)
{
	add_test_command(job, {0x22});
	ecu.available = 0;
	EXPECT_EQ(execute_diag_job(agent.ctx, job), -1);
	for (const fake_bus::sent_message &message : fake_bus::sent())
		EXPECT_EQ(message.destination, std::vector<fake_bus::address>{fake_bus::unit("FLEET-1")});
}

TEST_F(job_worker, frees_the_contents_of_a_job_whole_half_built_or_missing)
{
	free_job_contents(nullptr);

	diag_job empty = {};
	free_job_contents(&empty);

	transport_cfg *answered = add_test_transport(job, 0x7E1);
	answered->answer = static_cast<uint8_t *>(calloc(1, 4));
	answered->answer_length = 3;
	add_test_command(job, {0x22})->error = strdup("none");
	add_test_command(job, {0x31});
	for (int i = 0; i < 2; ++i) {
		can_port *port = static_cast<can_port *>(calloc(1, sizeof(can_port)));
		port->next = job->can_ports;
		job->can_ports = port;
	}
	job->dtc_data = static_cast<uint8_t *>(calloc(1, 4));
	job->version_query = json_object_new_array();
	json_object *shared = json_object_get(job->version_query);
	job->security = static_cast<security_access_config *>(calloc(1, sizeof(security_access_config)));
	job->security->location = strdup("location");
	job->security->script = strdup("script");

	free_job_contents(job);
	EXPECT_EQ(job->commands, nullptr);
	EXPECT_EQ(job->transport, nullptr);
	EXPECT_EQ(job->can_ports, nullptr);
	EXPECT_EQ(job->security, nullptr);
	EXPECT_EQ(job->reply_id, nullptr);
	EXPECT_EQ(job->version_query, nullptr);
	EXPECT_EQ(json_object_put(shared), 1); // ours was the last reference
	free_job_contents(job);
}
