#include "movra_fleet/diagnostic_execution/dtc_reading.h"

#include "dtc_fixture.h"

namespace
{

class dtc_reading : public dtc_fixture
{
};

const fake_bytes request = {0x19, 0x02, 0x09};

}

TEST_F(dtc_reading, asks_the_target_and_reports_its_answer)
{
	cfg->params.kind = 1;
	ecu.answers_from(0x7E0, {{0x59, 0x02, 0xFF, 0x12, 0x34, 0x56, 0x09}});

	EXPECT_EQ(run(), 0);

	EXPECT_EQ(worker_call_names(),
			(texts{"transport_interface_availibility", "transport_interface_status", "transport_init",
					"send_diag_command", "transport_deinit"}));
	std::vector<fake_uds_call> calls = worker_calls();
	EXPECT_EQ(calls[0].ifname, "can0");
	EXPECT_EQ(calls[0].kind, 1);
	EXPECT_EQ(calls[1].ifname, "can0");
	EXPECT_EQ(calls[1].kind, 1);
	EXPECT_EQ(calls[2].kind, 1);
	EXPECT_EQ(calls[2].params.phy_req_id, 0x7E0u);
	EXPECT_EQ(calls[2].params.phy_resp_id, 0x7E8u);
	EXPECT_EQ(calls[3].handle, 1);
	EXPECT_EQ(calls[3].data, request);
	EXPECT_EQ(calls[3].kind, 0); // the job's transport type, not the transport's kind
	EXPECT_EQ(calls[4].handle, 1);
	EXPECT_EQ(calls[4].kind, 1);
	std::vector<fake_uds_call> receives = ecu.calls("recv_diag_command");
	ASSERT_EQ(receives.size(), 1u);
	EXPECT_EQ(receives[0].handle, 1);
	EXPECT_EQ(receives[0].length, 8192u);
	EXPECT_EQ(receives[0].timeout_ms, 3000);
	EXPECT_EQ(receives[0].kind, 1);

	EXPECT_EQ(agent.replies(),
			texts{"{ \"type\": \"movra.quillet-query-update\", \"reply-to\": \"req-42\", \"body\": { \"uds\": { "
				  "\"resp\": \"0x59\", \"subfunction\": \"UDS_REPORT_DTC_BY_STATUS_MASK\", \"data-record\": [ { "
				  "\"phy-req-id\": \"7E0\", \"data\": \"FF12345609\" } ] }, \"targetAddress\": \"7E0\" } }"});
	EXPECT_EQ(log(), (texts{"INFO Sending commad to 7E0", "INFO Preparin to send info to FLEET-1"}));
	EXPECT_EQ(cfg->handle, -1);
	EXPECT_EQ(cfg->receiver, nullptr);
}

TEST_F(dtc_reading, shows_nill_for_texts_that_are_missing)
{
	for (char **text : {&cfg->phy_req_id_text, &job->source_address}) {
		free(*text);
		*text = nullptr;
	}
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(output.messages("INFO"), (texts{"Sending commad to nill", "Preparin to send info to nill"}));
}

TEST_F(dtc_reading, sends_a_request_without_data_in_two_bytes)
{
	free(job->dtc_data);
	job->dtc_data = nullptr;
	job->dtc_data_length = 0;
	job->dtc_subfunction = 0x0A;
	ecu.answers_from(0x7E0, {{0x59, 0x0A}});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(ecu.requests(), (std::vector<fake_bytes>{{0x19, 0x0A}}));
}

TEST_F(dtc_reading, still_sends_when_the_interface_is_missing_or_down)
{
	const struct {
		const char *what;
		int available, up;
		const char *text;
	} rows[] = {
			{"missing", 0, 1, "ERR can0 is not available"},
			{"missing, an error number", -1, 1, "ERR can0 is not available"},
			{"missing, another number", 2, 1, "ERR can0 is not available"},
			{"down", 1, 0, "ERR can0 is not UP"},
			{"down, an error number", 1, -1, "ERR can0 is not UP"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		size_t sent_before = ecu.requests().size();
		ecu.available = row.available;
		ecu.up = row.up;

		EXPECT_EQ(run(), -1);

		EXPECT_EQ(log(),
				(texts{"INFO Sending commad to 7E0", row.text, "INFO Preparin to send info to FLEET-1",
						"ERR Invalid Array", "ERR send_dtc_response_to_bridge failed"}));
		ASSERT_EQ(ecu.requests().size(), sent_before + 1);
		EXPECT_EQ(ecu.calls("send_diag_command").back().handle, 0); // never opened
		EXPECT_EQ(ecu.calls("transport_init").size(), 0u);
		EXPECT_EQ(ecu.calls("recv_diag_command").size(), 0u);
		EXPECT_EQ(ecu.calls("transport_deinit").size(), 0u);
		EXPECT_EQ(agent.replies(), texts{});
	}
}

TEST_F(dtc_reading, takes_the_low_byte_of_an_interface_check)
{
	ecu.available = 0x101;
	ecu.up = 0x301;
	ecu.answers_from(0x7E0, {{0x59, 0x02}});
	EXPECT_EQ(run(), 0);
}

TEST_F(dtc_reading, sends_nothing_when_the_channel_does_not_open)
{
	ecu.init_results = {-1};
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(log(), (texts{"INFO Sending commad to 7E0", "ERR Unable open can port"}));
	EXPECT_EQ(worker_call_names(),
			(texts{"transport_interface_availibility", "transport_interface_status", "transport_init"}));
	EXPECT_EQ(agent.replies(), texts{});
}

TEST_F(dtc_reading, does_not_wait_when_the_request_was_not_sent)
{
	ecu.send_results = {-1};
	EXPECT_EQ(run(), -1);
	texts lines;
	for (const std::string &line : log())
		if (line != "ERR recv_diag_command failed") // of the receiver, whenever it comes
			lines.push_back(line);
	EXPECT_EQ(lines,
			(texts{"INFO Sending commad to 7E0", "ERR send_diag_command failed",
					"INFO Preparin to send info to FLEET-1", "ERR Invalid Array",
					"ERR send_dtc_response_to_bridge failed"}));
	EXPECT_EQ(scratch(), "send_dtc_response_to_bridge failed");
}

TEST_F(dtc_reading, fails_when_the_ecu_stays_silent)
{
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(log(),
			(texts{"INFO Sending commad to 7E0", "ERR recv_diag_command failed",
					"INFO Preparin to send info to FLEET-1", "ERR Invalid Array",
					"ERR send_dtc_response_to_bridge failed"}));
	EXPECT_EQ(scratch(), "send_dtc_response_to_bridge failed");
	EXPECT_EQ(handles("transport_deinit"), std::vector<int>{1});
}

TEST_F(dtc_reading, takes_answers_as_the_ecu_gives_them)
{
	const struct {
		const char *what;
		std::vector<fake_answer> answers;
		texts reported;
		texts receiver_lines;
	} rows[] = {
			{"a refusal", {{0x7F, 0x19, 0x31}}, {"7E0 7F1931"}, {"ERR Negative Response 19"}},
			{"a refusal of one byte", {{0x7F}}, {"7E0 7F"}, {"ERR Negative Response 0"}},
			{"pending, then the answer", {{0x7F, 0x19, 0x78}, {0x7F, 0x19, 0x78}, {0x59, 0x02, 0xFF}}, {"7E0 FF"},
					{"INFO NRC: 0x78: requestCorrectlyReceived-ResponsePending",
							"INFO NRC: 0x78: requestCorrectlyReceived-ResponsePending"}},
			{"pending, then a longer answer", {{0x7F, 0x19, 0x78}, {0x59, 0x02, 0xFF, 0x12, 0x34, 0x56, 0x09}},
					{"7E0 FF12345609"}, {"INFO NRC: 0x78: requestCorrectlyReceived-ResponsePending"}},
			{"pending, then a refusal of one byte", {{0x7F, 0x19, 0x78}, {0x7F}}, {"7E0 7F"},
					{"INFO NRC: 0x78: requestCorrectlyReceived-ResponsePending", "ERR Negative Response 0"}},
			{"pending, then a refusal", {{0x7F, 0x19, 0x78}, {0x7F, 0x19, 0x22}}, {"7E0 7F1922"},
					{"INFO NRC: 0x78: requestCorrectlyReceived-ResponsePending", "ERR Negative Response 19"}},
			{"the answer to another service", {{0x62, 0x01, 0x02}}, {"7E0 02"}, {}},
			{"two answers", {{0x59, 0x02, 0x01}, {0x59, 0x02, 0x02}}, {"7E0 01"}, {}},
			{"a header only", {{0x59, 0x02}}, {"7E0 "}, {}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		diag_job *fresh = new_test_job();
		std::swap(job, fresh);
		free_job_contents(fresh);
		free(fresh);
		add_test_transport(job);
		job->sid = 0x19;
		job->dtc_subfunction = 0x02;
		ecu.drop_answers();
		ecu.answers_from(0x7E0, row.answers);

		EXPECT_EQ(run(), 0);

		EXPECT_EQ(reported(), row.reported);
		texts lines = log();
		EXPECT_EQ(texts(lines.begin() + 1, lines.end() - 1), row.receiver_lines);
	}
}

TEST_F(dtc_reading, leaves_out_answers_that_are_none)
{
	for (const fake_bytes &bytes : {fake_bytes{}, fake_bytes{0x59}, fake_bytes{0x00, 0x02, 0x03}}) {
		SCOPED_TRACE(bytes.size());
		ecu.drop_answers();
		ecu.answers_from(0x7E0, {fake_answer(bytes)});
		free(cfg->answer);
		cfg->answer = nullptr;
		EXPECT_EQ(run(), -1);
		EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "Invalid Array"));
	}
}

TEST_F(dtc_reading, takes_the_longest_answer_and_no_longer_one)
{
	fake_bytes longest(8191, 0x5A);
	ecu.answers_from(0x7E0, {fake_answer(longest)});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(cfg->answer_length, 8191u);
	EXPECT_EQ(fake_bytes(cfg->answer, cfg->answer + 8191), longest);
	EXPECT_EQ(cfg->answer[8191], 0);
	free(cfg->answer);
	cfg->answer = nullptr;

	ecu.answers_from(0x7E0, {fake_answer(fake_bytes(8193, 0x5A))});
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(cfg->answer, nullptr);
}

TEST_F(dtc_reading, fails_for_one_ecu_without_its_settings)
{
	free_transport_cfg(&job->transport);
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(ecu.names(), texts{});
}

TEST_F(dtc_reading, counts_an_ecu_without_receiver_as_silent)
{
	for (const char *function : {"pthread_create", "calloc"}) {
		SCOPED_TRACE(function);
		free_job_contents(job);
		free(job);
		job = new_test_job();
		job->sid = 0x19;
		job->dtc_subfunction = 0x0A;
		ask_all();
		add_ecu(0x7E0, 0x7DF);
		add_ecu(0x7E1, 0x7DF);
		ecu.drop_answers();
		ecu.answers_from(0x7E0, {{0x59, 0x02, 0xE0}});
		ecu.answers_from(0x7E1, {{0x59, 0x02, 0xE1}});
		fail_nth failure(function, 1, EAGAIN, fail_nth::this_thread);

		EXPECT_EQ(run(), 0);

		EXPECT_TRUE(failure.fired());
		EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "Spawning of receiver failed"));
		EXPECT_EQ(reported(), texts{"7E1 E1"});
	}
}

TEST_F(dtc_reading, tells_the_requester_nothing_of_receivers)
{
	FLEET_ERR("before");
	ecu.answers_from(0x7E0, {{0x7F, 0x19, 0x78}, {0x7F, 0x19, 0x31}});
	EXPECT_EQ(run(), 0);
	EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "Negative Response 19"));
	EXPECT_EQ(scratch(), "before");
}

TEST_F(dtc_reading, fails_cleanly_whatever_allocation_fails)
{
	bool request_failed = false;
	for (unsigned nth = 1;; ++nth) {
		SCOPED_TRACE(nth);
		free(cfg->answer);
		cfg->answer = nullptr;
		ecu.drop_answers();
		ecu.answers_from(0x7E0, {{0x59, 0x02, 0xFF}});
		fail_nth failure("calloc", nth, ENOMEM, fail_nth::this_thread);
		int result = run();
		request_failed = request_failed || output.has_line("ERR", "movra_fleet", "Memory Allication failed");
		if (!failure.fired()) {
			EXPECT_EQ(result, 0);
			EXPECT_GE(nth, 4u); // receiver, request, text of the answer, message
			break;
		}
		ASSERT_LT(nth, 50u);
		EXPECT_TRUE(receivers_gone());
	}
	EXPECT_TRUE(request_failed);
}

TEST_F(dtc_reading, says_that_an_answer_could_not_be_kept)
{
	ecu.answers_from(0x7E0, {{0x59, 0x02, 0xFF}});
	ecu.on_call = [](const fake_uds_call &call) {
		// On the receiver's thread: its own next allocation fails.
		if (call.function == "recv_diag_command")
			static thread_local fail_nth failure("calloc", 1, ENOMEM, fail_nth::this_thread);
	};
	EXPECT_EQ(run(), -1);
	EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "Unable to allocate memory"));
	EXPECT_EQ(scratch(), "send_dtc_response_to_bridge failed");
}

TEST_F(dtc_reading, ends_when_the_agent_stops)
{
	ecu.answers_from(0x7E0,
			{fake_answer(
					{0x7F, 0x19, 0x78}, 0, 0, [&] { agent_request_stop(agent.ctx); }, true)});
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(ecu.calls("recv_diag_command").size(), 1u);
}

TEST_F(dtc_reading, calls_nothing_once_the_agent_has_stopped)
{
	agent_request_stop(agent.ctx);
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(ecu.names(), texts{});
}

// Another library may tell a number of bytes, and number its channels from 0.
TEST_F(dtc_reading, takes_only_negative_results_for_failures)
{
	ecu.init_results = {fake_ecu::handle_zero};
	ecu.send_results = {3};
	ecu.answers({fake_answer({0x59, 0x02, 0xFF}, 3)});

	EXPECT_EQ(run(), 0);

	EXPECT_EQ(reported(), texts{"7E0 FF"});
	EXPECT_EQ(output.messages("ERR"), texts{});
	EXPECT_EQ(handles("send_diag_command"), std::vector<int>{0});
	EXPECT_EQ(handles("recv_diag_command"), std::vector<int>{0});
}

TEST_F(dtc_reading, sends_nothing_more_when_the_agent_stops_while_channels_open)
{
	for (bool all : {false, true}) {
		SCOPED_TRACE(all);
		if (all) {
			ask_all();
			EXPECT_EQ(add_can_port(job, 0x7DF, cfg), 0);
		}
		ecu.on_call = [&](const fake_uds_call &call) {
			if (call.function == "transport_init")
				agent_request_stop(agent.ctx);
		};
		agent.ctx->stopping = 0;
		EXPECT_EQ(run(), -1);
		EXPECT_EQ(ecu.requests().size(), 0u);
	}
}

TEST_F(dtc_reading, answers_in_the_error_reply_with_what_failed_last)
{
	EXPECT_EQ(execute_diag_job(agent.ctx, job), -1);
	EXPECT_EQ(agent.replies(),
			texts{"{ \"type\": \"movra.quillet-query-update\", \"reply-to\": \"req-42\", \"body\": { \"error\": { "
				  "\"error-type\": \"UDS_NO_RESPONSE\", \"uds-nrc\": \"send_dtc_response_to_bridge failed\" } } }"});
}
