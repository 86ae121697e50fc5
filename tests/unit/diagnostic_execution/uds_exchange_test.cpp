#include "movra_fleet/diagnostic_execution/uds_exchange.h"

#include <ctime>

#include "exchange_fixture.h"
#include "pause_seam.h"

namespace
{

// All moments between two, in local time.
texts stamps_between(time_t first, time_t last)
{
	texts stamps;
	for (time_t moment = first; moment <= last; ++moment) {
		struct tm local = {};
		char text[32];
		localtime_r(&moment, &local);
		(void)strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &local);
		stamps.push_back(text);
	}
	return stamps;
}

const texts whole_run = {"transport_interface_availibility", "transport_interface_status", "transport_init",
		"send_diag_command", "recv_diag_command", "transport_deinit"};

}

TEST_F(uds_exchange, opens_asks_and_closes_with_the_settings_of_the_ecu)
{
	cfg->params.kind = 1;
	ecu.init_results = {33};
	ecu.answers({{0x62, 0xF1, 0x90, 'W'}});

	EXPECT_EQ(run({0x22, 0xF1, 0x90}), 0);

	ASSERT_EQ(ecu.names(), whole_run);
	std::vector<fake_uds_call> calls = ecu.calls();
	for (const fake_uds_call &call : calls)
		EXPECT_EQ(call.kind, 1) << call.function;
	EXPECT_EQ(calls[0].ifname, "can0");
	EXPECT_EQ(calls[1].ifname, "can0");
	ASSERT_TRUE(calls[2].has_params);
	EXPECT_EQ(calls[2].params.kind, 1);
	EXPECT_EQ(calls[2].params.phy_req_id, 0x7E0u);
	EXPECT_EQ(calls[2].params.phy_resp_id, 0x7E8u);
	EXPECT_STREQ(calls[2].params.ifname, "can0");
	EXPECT_EQ(calls[2].params.bsize, 8);
	EXPECT_EQ(calls[2].params.st_min, 5);
	for (size_t i = 3; i < calls.size(); ++i)
		EXPECT_EQ(calls[i].handle, 33) << calls[i].function;
	EXPECT_EQ(calls[3].data, (fake_bytes{0x22, 0xF1, 0x90}));
	EXPECT_EQ(calls[4].timeout_ms, 2000);
	EXPECT_EQ(calls[4].length, 4096u);
}

TEST_F(uds_exchange, reports_a_positive_answer_with_its_times)
{
	ecu.answers({{0x62, 0xF1, 0x90, 'W'}});

	time_t before = time(nullptr);
	EXPECT_EQ(run({0x22, 0xF1, 0x90}), 0);
	time_t after = time(nullptr);

	outcome got = only_outcome();
	EXPECT_EQ(got.service, "0x22");
	EXPECT_EQ(got.response, "62F19057");
	EXPECT_EQ(got.error, "none");
	EXPECT_THAT(stamps_between(before, after), testing::Contains(got.requested_time));
	EXPECT_THAT(stamps_between(before, after), testing::Contains(got.responded_time));
	EXPECT_EQ(errors(), texts{});
}

// Another library may tell a number of bytes, and number its channels from 0.
TEST_F(uds_exchange, takes_only_negative_results_for_failures)
{
	ecu.init_results = {fake_ecu::handle_zero};
	ecu.send_results = {3};
	ecu.answers({fake_answer({0x7F, 0x22, 0x78}, 3), fake_answer({0x62, 0xF1, 0x90, 'W'}, 4)});

	EXPECT_EQ(run({0x22, 0xF1, 0x90}), 0);

	EXPECT_EQ(only_outcome().response, "62F19057");
	EXPECT_EQ(only_outcome().error, "none");
	EXPECT_EQ(errors(), texts{});
	for (const char *function : {"send_diag_command", "recv_diag_command", "transport_deinit"})
		EXPECT_EQ(ecu.calls(function).back().handle, 0) << function;
}

TEST_F(uds_exchange, opens_nothing_once_the_agent_has_stopped)
{
	for (const char *last : {"transport_interface_availibility", "transport_interface_status"}) {
		SCOPED_TRACE(last);
		ecu.on_call = [&](const fake_uds_call &call) {
			if (call.function == last)
				agent_request_stop(agent.ctx);
		};
		EXPECT_EQ(run({0x22, 0xF1, 0x90}), -1);
		EXPECT_EQ(ecu.calls("transport_init").size(), 0u);
		agent.ctx->stopping = 0;
	}
	ecu.on_call = {};
	agent_request_stop(agent.ctx);
	size_t calls_before = ecu.names().size();
	EXPECT_EQ(run({0x22, 0xF1, 0x90}), -1);
	texts names = ecu.names();
	EXPECT_EQ(texts(names.begin() + static_cast<long>(calls_before), names.end()), texts{"transport_deinit"});
}

TEST_F(uds_exchange, sends_no_command_when_the_channel_cannot_be_opened)
{
	const struct {
		const char *what;
		int available, up, init;
		texts calls;
		int handle;
		const char *text;
	} rows[] = {
			{"interface missing", 0, 1, 7, {whole_run[0], whole_run[5]}, 0, "can0 is not available"},
			{"interface check fails", -1, 1, 7, {whole_run[0], whole_run[5]}, 0, "can0 is not available"},
			{"another low byte", 0x100, 1, 7, {whole_run[0], whole_run[5]}, 0, "can0 is not available"},
			{"interface down", 1, 0, 7, {whole_run[0], whole_run[1], whole_run[5]}, 0, "can0 is not UP"},
			{"interface state unknown", 1, 2, 7, {whole_run[0], whole_run[1], whole_run[5]}, 0, "can0 is not UP"},
			{"no channel", 1, 1, -3, {whole_run[0], whole_run[1], whole_run[2], whole_run[5]}, -3,
					"Unable open can port"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		free_job_contents(job);
		free(job);
		job = new_test_job();
		cfg = add_test_transport(job);
		agent.forget_replies();
		ecu.available = row.available;
		ecu.up = row.up;
		ecu.init_results = {row.init};
		size_t calls_before = ecu.names().size();
		add_test_command(job, {0x22, 0xF1, 0x90});
		add_test_command(job, {0x31, 0x01});

		EXPECT_EQ(run(), -1);

		texts names = ecu.names();
		EXPECT_EQ(texts(names.begin() + static_cast<long>(calls_before), names.end()), row.calls);
		EXPECT_EQ(ecu.calls().back().handle, row.handle);
		EXPECT_EQ(errors(), texts{row.text});
		std::vector<outcome> all = outcomes();
		ASSERT_EQ(all.size(), 2u);
		for (const outcome &got : all) {
			EXPECT_EQ(got.requested_time, "");
			EXPECT_EQ(got.responded_time, "");
			EXPECT_EQ(got.response, "-");
			EXPECT_EQ(got.error, "Command not executed");
		}
	}
}

TEST_F(uds_exchange, replies_when_the_channel_is_closed)
{
	for (int up : {1, 0}) {
		SCOPED_TRACE(up);
		agent.forget_replies();
		ecu.up = up;
		std::vector<size_t> replies_at_the_end;
		ecu.on_call = [&](const fake_uds_call &call) {
			if (call.function == "transport_deinit")
				replies_at_the_end.push_back(agent.replies().size());
		};
		(void)run({0x22});
		EXPECT_EQ(replies_at_the_end, std::vector<size_t>{0});
		EXPECT_EQ(agent.replies().size(), 1u);
	}
}

TEST_F(uds_exchange, looks_at_the_low_byte_of_the_interface_checks)
{
	ecu.available = 0x7F01;
	ecu.up = 0x101;
	ecu.answers({{0x62}});
	EXPECT_EQ(run({0x22}), 0);
	EXPECT_EQ(only_outcome().error, "none");
}

TEST_F(uds_exchange, gives_no_block_for_an_unknown_kind)
{
	cfg->params.kind = 2;
	ecu.answers({{0x62}});
	EXPECT_EQ(run({0x22}), 0);
	EXPECT_FALSE(ecu.calls("transport_init")[0].has_params);
	EXPECT_EQ(ecu.calls("transport_init")[0].kind, 2);
}

TEST_F(uds_exchange, reports_the_commands_of_a_job_without_any_ecu)
{
	transport_cfg *only = job->transport;
	job->transport = nullptr;
	add_test_command(job, {0x22});

	EXPECT_EQ(run(), -1);

	EXPECT_EQ(ecu.names(), texts{});
	EXPECT_EQ(errors(), texts{"Invalid TP Cfg received"});
	EXPECT_EQ(only_outcome().error, "Command not executed");
	job->transport = only;
}

TEST_F(uds_exchange, takes_each_answer_for_what_it_is)
{
	const struct {
		const char *what;
		fake_bytes request, answer;
		const char *error, *line;
	} rows[] = {
			{"positive", {0x31, 0x01}, {0x71, 0x01}, "none", nullptr},
			{"positive with nothing else", {0x10, 0x03}, {0x50}, "none", nullptr},
			{"key accepted", {0x27, 0x02}, {0x67, 0x02}, "none", nullptr},
			{"a service that has the bit already", {0x62}, {0x62}, "none", nullptr},
			{"7F is the positive answer of 3F", {0x3F}, {0x7F, 0x3F, 0x78}, "none", nullptr},
			{"refused: the SID is shown, not the NRC", {0x22, 0xF1}, {0x7F, 0x22, 0x31}, "Negative response",
					"Negative Response 22"},
			{"refused, cut short", {0x22, 0xF1}, {0x7F, 0x22}, "Negative response", "Negative Response 22"},
			{"refused, one byte", {0x22, 0xF1}, {0x7F}, "Negative response", "Negative Response 0"},
			{"answer to something else", {0x22, 0xF1}, {0x71, 0x0A, 0xBC, 0xDD}, "Negative response",
					"Invalid Response 71 a bc"},
			{"echo of the request", {0x22, 0xF1}, {0x22, 0xF1}, "Negative response", "Invalid Response 22 f1 0"},
			{"empty answer", {0x22, 0xF1}, {}, "Negative response", "Invalid Response 0 0 0"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		agent.forget_replies();
		ecu.answers({fake_answer(row.answer)});
		EXPECT_EQ(run(row.request), 0);
		EXPECT_EQ(only_outcome().error, row.error);
		EXPECT_EQ(errors(), row.line != nullptr ? texts{row.line} : texts{});
	}
}

TEST_F(uds_exchange, keeps_receiving_while_the_ecu_answers_response_pending)
{
	ecu.answers({{0x7F, 0x22, 0x78}, {0x7F, 0x22, 0x78}, {0x62, 0xF1, 0x90, 'W'}});

	EXPECT_EQ(run({0x22, 0xF1, 0x90}), 0);

	EXPECT_EQ(only_outcome().error, "none");
	EXPECT_EQ(only_outcome().response, "62F19057");
	EXPECT_EQ(ecu.requests().size(), 1u);
	EXPECT_EQ(ecu.receive_timeouts_ms(), (std::vector<int>{2000, 2000, 2000}));
	EXPECT_EQ(log(), texts(2, "INFO NRC: 0x78: requestCorrectlyReceived-ResponsePending"));
}

TEST_F(uds_exchange, waits_through_a_thousand_pending_answers_each_just_in_time)
{
	std::vector<fake_answer> answers(1000, fake_answer({0x7F, 0x31, 0x78}, 0, 1999));
	answers.push_back({0x71, 0x01});
	ecu.answers(answers);
	verbosity_scope quiet(LOG_WARN);

	EXPECT_EQ(run({0x31, 0x01}), 0);

	EXPECT_EQ(only_outcome().error, "none");
	EXPECT_EQ(ecu.now_ms(), 1'999'000);
}

TEST_F(uds_exchange, ends_with_the_command_that_could_not_be_sent)
{
	ecu.send_results = {0, -1};
	ecu.answers({{0x50, 0x03}});
	add_test_command(job, {0x10, 0x03});
	add_test_command(job, {0x22, 0xF1, 0x90});
	add_test_command(job, {0x31, 0x01});

	EXPECT_EQ(run(), 0);

	std::vector<outcome> all = outcomes();
	ASSERT_EQ(all.size(), 3u);
	EXPECT_EQ(all[0].error, "none");
	EXPECT_EQ(all[1].error, "send_diag_command failed");
	EXPECT_NE(all[1].requested_time, "");
	EXPECT_EQ(all[1].responded_time, "");
	EXPECT_EQ(all[1].response, "-");
	EXPECT_EQ(all[2].error, "Command not executed");
	EXPECT_EQ(all[2].requested_time, "");
	EXPECT_EQ(errors(), texts{"send_diag_command failed"});
	EXPECT_EQ(ecu.names().back(), "transport_deinit");
}

TEST_F(uds_exchange, ends_with_the_command_that_got_no_answer)
{
	add_test_command(job, {0x10, 0x03});
	add_test_command(job, {0x22, 0xF1, 0x90});

	EXPECT_EQ(run(), 0);

	std::vector<outcome> all = outcomes();
	ASSERT_EQ(all.size(), 2u);
	EXPECT_EQ(all[0].error, "recv_diag_command failed");
	EXPECT_EQ(all[0].response, "-");
	EXPECT_EQ(all[0].responded_time, "");
	EXPECT_EQ(all[1].error, "Command not executed");
	EXPECT_EQ(errors(), texts{"recv_diag_command failed"});
	EXPECT_EQ(ecu.requests().size(), 1u);
	EXPECT_EQ(ecu.names().back(), "transport_deinit");
}

TEST_F(uds_exchange, ends_with_the_command_that_was_refused)
{
	ecu.answers({{0x7F, 0x10, 0x22}});
	add_test_command(job, {0x10, 0x03});
	add_test_command(job, {0x22, 0xF1, 0x90});

	EXPECT_EQ(run(), 0);

	std::vector<outcome> all = outcomes();
	ASSERT_EQ(all.size(), 2u);
	EXPECT_EQ(all[0].error, "Negative response");
	EXPECT_EQ(all[0].response, "7F1022");
	EXPECT_EQ(all[1].error, "Command not executed");
}

TEST_F(uds_exchange, keeps_the_last_answer_when_a_later_receive_fails)
{
	const struct {
		const char *what;
		fake_bytes written;
	} rows[] = {{"nothing written", {}}, {"a careless library", {0xDE, 0xAD, 0xBE, 0xEF}}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		agent.forget_replies();
		ecu.answers({{0x7F, 0x31, 0x78}, fake_answer(row.written, -1)});

		EXPECT_EQ(run({0x31, 0x01}), 0);

		outcome got = only_outcome();
		EXPECT_EQ(got.response, "7F3178");
		EXPECT_NE(got.responded_time, "");
		EXPECT_EQ(got.error, "recv_diag_command failed");
	}
}

TEST_F(uds_exchange, takes_an_answer_as_long_as_its_buffer)
{
	verbosity_scope quiet(LOG_ERR);
	fake_bytes longest(4096, 0x5A);
	longest[0] = 0x62;
	ecu.answers({fake_answer(longest)});

	EXPECT_EQ(run({0x22}), 0);

	EXPECT_EQ(only_outcome().error, "none");
	EXPECT_EQ(only_outcome().response.size(), 2 * longest.size());
}

TEST_F(uds_exchange, fails_on_an_answer_longer_than_its_buffer)
{
	fake_bytes too_long(4097, 0x5A);
	too_long[0] = 0x62;
	ecu.answers({fake_answer(too_long)});

	EXPECT_EQ(run({0x22}), 0);

	EXPECT_EQ(only_outcome().error, "recv_diag_command failed");
	EXPECT_EQ(only_outcome().response, "-");
}

TEST_F(uds_exchange, forgets_the_bytes_of_a_longer_answer_before)
{
	ecu.answers({{0x7F, 0x22, 0x78, 0x99, 0x99}, {0x7F}});
	EXPECT_EQ(run({0x22}), 0);
	EXPECT_EQ(errors(), texts{"Negative Response 0"});
	EXPECT_EQ(only_outcome().response, "7F");
}

TEST_F(uds_exchange, dumps_each_request_as_far_as_the_verbosity_says)
{
	const struct {
		int level;
		const char *tail;
	} rows[] = {
			{-1, nullptr},
			{0, "UDS Data:  (26 bytes): 22 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00...\n"},
			{5,
					"UDS Data:  (26 bytes): 22 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
					"00\n"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.level);
		verbosity_scope level(row.level);
		fake_bytes request(26);
		request[0] = 0x22;
		EXPECT_EQ(run(request), 0);
		EXPECT_EQ(output.text().find("UDS Data:") != std::string::npos, row.tail != nullptr);
		if (row.tail != nullptr) {
			EXPECT_THAT(output.text(), testing::HasSubstr(row.tail));
		}
	}
}

TEST_F(uds_exchange, stores_its_texts_without_logging_them_below_the_level_of_errors)
{
	verbosity_scope silent(-1);
	ecu.answers({{0x7F, 0x22, 0x31}});
	EXPECT_EQ(run({0x22}), 0);
	EXPECT_EQ(only_outcome().error, "Negative response");
	EXPECT_EQ(output.text(), "");
}

TEST_F(uds_exchange, runs_the_first_ecu_of_a_job_for_several)
{
	add_test_transport(job, 0x7E1, "can1");
	ecu.answers({{0x62}});
	EXPECT_EQ(run({0x22}), 0);
	EXPECT_EQ(ecu.calls("transport_init").size(), 1u);
	EXPECT_EQ(ecu.calls("transport_init")[0].params.phy_req_id, 0x7E0u);
}
