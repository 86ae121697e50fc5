// Receivers that nobody waits for.
#include "movra_fleet/diagnostic_execution/dtc_receiver.h"

#include "dtc_fixture.h"

namespace
{

class dtc_receivers : public dtc_fixture
{
protected:
	~dtc_receivers() override
	{
		let_go.raise();
	}
	// An answer that the ECU gives only when the test lets it.
	fake_answer late(fake_bytes bytes)
	{
		return fake_answer(std::move(bytes), 0, 0, [this] {
			listening.raise();
			EXPECT_TRUE(let_go.wait());
		});
	}
	// Runs the job with a send that fails once the receiver listens.
	void run_with_failing_send()
	{
		ecu.send_results = {-1};
		ecu.on_call = [this](const fake_uds_call &call) {
			if (call.function == "send_diag_command") {
				EXPECT_TRUE(listening.wait());
			}
		};
		EXPECT_EQ(execute_diag_job(agent.ctx, job), -1);
	}
	void free_the_job()
	{
		free_job_contents(job);
		free(job);
		job = nullptr;
	}
	static std::string error_reply(const std::string &cause)
	{
		return "{ \"type\": \"movra.quillet-query-update\", \"reply-to\": \"req-42\", \"body\": { \"error\": { "
			   "\"error-type\": \"UDS_NO_RESPONSE\", \"uds-nrc\": \"" +
				cause + "\" } } }";
	}

	event listening; // a receiver has begun to wait for an answer
	event let_go;
};

}

TEST(dtc_response_receiver, says_that_it_has_nothing_to_receive_on)
{
	captured_output output;
	char before[log_scratch_size], after[log_scratch_size];
	log_scratch_read(before);
	EXPECT_EQ(dtc_response_receiver(nullptr), nullptr);
	log_scratch_read(after);
	EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "Null"));
	EXPECT_STREQ(after, before);
}

TEST_F(dtc_receivers, may_answer_after_a_failed_send_and_the_end_of_their_job)
{
	ecu.answers_from(0x7E0, {late({0x59, 0x02, 0xFF})});
	run_with_failing_send();
	free_the_job();
	EXPECT_EQ(agent.replies(), texts{error_reply("send_dtc_response_to_bridge failed")});

	let_go.raise();
	EXPECT_TRUE(receivers_gone());
	EXPECT_EQ(scratch(), "send_dtc_response_to_bridge failed");
	EXPECT_EQ(agent.replies().size(), 1u);
}

TEST_F(dtc_receivers, leave_the_error_text_alone_whatever_comes_late)
{
	const struct {
		const char *what;
		fake_bytes bytes;
		int result;
		const char *line;
	} rows[] = {
			{"a refusal", {0x7F, 0x19, 0x31}, 0, "ERR Negative Response 19"},
			{"a failure", {}, -1, "ERR recv_diag_command failed"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		event goes_on, begun;
		ecu.drop_answers();
		ecu.answers_from(0x7E0, {fake_answer(row.bytes, row.result, 0, [&] {
			begun.raise();
			EXPECT_TRUE(goes_on.wait());
		})});
		ecu.send_results = {-1};
		ecu.on_call = [&](const fake_uds_call &call) {
			if (call.function == "send_diag_command") {
				EXPECT_TRUE(begun.wait());
			}
		};
		EXPECT_EQ(run(), -1);
		FLEET_ERR("the next job's error");
		goes_on.raise();
		EXPECT_TRUE(receivers_gone());
		texts lines = log();
		EXPECT_EQ(lines.back(), row.line);
		EXPECT_EQ(scratch(), "the next job's error");
	}
}

TEST_F(dtc_receivers, leave_the_error_text_alone_when_a_late_answer_finds_no_memory)
{
	ecu.answers_from(0x7E0, {fake_answer({0x59, 0x02, 0xFF}, 0, 0, [this] {
		listening.raise();
		EXPECT_TRUE(let_go.wait());
		static thread_local fail_nth failure("calloc", 1, ENOMEM, fail_nth::this_thread);
	})});
	run_with_failing_send();
	FLEET_ERR("the next job's error");
	output.clear();
	let_go.raise();
	EXPECT_TRUE(receivers_gone());
	EXPECT_EQ(log(), texts{"ERR Unable to allocate memory"});
	EXPECT_EQ(scratch(), "the next job's error");
}

TEST_F(dtc_receivers, do_not_receive_again_when_nobody_waits)
{
	ecu.answers_from(0x7E0, {late({0x7F, 0x19, 0x78}), {0x59, 0x02, 0xFF}});
	run_with_failing_send();
	free_the_job();
	let_go.raise();
	EXPECT_TRUE(receivers_gone());
	EXPECT_EQ(ecu.calls("recv_diag_command").size(), 1u);
}

TEST_F(dtc_receivers, outlive_a_second_channel_that_does_not_open)
{
	ask_all();
	EXPECT_EQ(add_can_port(job, 0x7DF, cfg), 0);
	add_ecu(0x7E1, 0x7DF);
	ecu.answers_from(0x7E0, {late({0x59, 0x02, 0xFF})});
	ecu.init_results = {1, -1};
	ecu.on_call = [this, opened = 0](const fake_uds_call &call) mutable {
		if (call.function == "transport_init" && ++opened == 2) {
			EXPECT_TRUE(listening.wait());
		}
	};

	EXPECT_EQ(execute_diag_job(agent.ctx, job), -1);

	EXPECT_EQ(handles("transport_deinit"), std::vector<int>{1});
	EXPECT_EQ(ecu.requests().size(), 0u);
	EXPECT_EQ(agent.replies(), texts{error_reply("Unable open can port")});
	free_the_job();
	let_go.raise();
	EXPECT_TRUE(receivers_gone());
	EXPECT_EQ(scratch(), "Unable open can port");
}

TEST_F(dtc_receivers, of_further_transports_are_not_waited_for_by_a_request_to_one_ecu)
{
	add_test_transport(job, 0x7E1);
	ecu.answers_from(0x7E0, {{0x59, 0x02, 0xE0}});
	ecu.answers_from(0x7E1, {late({0x59, 0x02, 0xE1})});
	ecu.on_call = [this](const fake_uds_call &call) {
		if (call.function == "send_diag_command") {
			EXPECT_TRUE(listening.wait());
		}
	};

	EXPECT_EQ(run(), 0);

	EXPECT_EQ(reported(), texts{"7E0 E0"});
	free_the_job();
	let_go.raise();
	EXPECT_TRUE(receivers_gone());
}

TEST_F(dtc_receivers, outlive_the_agent)
{
	ecu.answers_from(0x7E0, {late({0x7F, 0x19, 0x78})});
	agent_ctx *other = agent_ctx_new();
	ecu.send_results = {-1};
	ecu.on_call = [this](const fake_uds_call &call) {
		if (call.function == "send_diag_command") {
			EXPECT_TRUE(listening.wait());
		}
	};
	EXPECT_EQ(read_dtc_information(other, job), -1);
	free_the_job();
	agent_ctx_free(other);
	let_go.raise();
	EXPECT_TRUE(receivers_gone());
}

TEST_F(dtc_receivers, are_left_behind_by_the_stop_when_their_answers_do_not_end)
{
	for (bool all : {false, true}) {
		SCOPED_TRACE(all);
		if (all) {
			ask_all();
			EXPECT_EQ(add_can_port(job, 0x7DF, cfg), 0);
			add_ecu(0x7E1, 0x7DF);
		}
		event begun, goes_on;
		for (uint32_t id : {0x7E0u, 0x7E1u})
			ecu.answers_from(id, {fake_answer({0x59, 0x02, 0xFF}, 0, 0, [&] {
				begun.raise();
				EXPECT_TRUE(goes_on.wait());
			})});
		agent.ctx->stopping = 0;
		int result = 1;
		std::thread worker([&] { result = run(); });
		EXPECT_TRUE(begun.wait(all ? 2 : 1));
		agent_request_stop(agent.ctx);
		worker.join(); // while no answer has come
		EXPECT_EQ(result, -1);
		EXPECT_EQ(ecu.calls("transport_deinit").size(), ecu.calls("transport_init").size());
		goes_on.raise();
		EXPECT_TRUE(receivers_gone());
		ecu.drop_answers();
	}
}

TEST_F(dtc_receivers, are_nothing_to_join_or_to_abandon_when_they_never_started)
{
	dtc_receiver_join(cfg);
	dtc_receiver_abandon(cfg);
	EXPECT_EQ(cfg->answer, nullptr);
	EXPECT_EQ(ecu.names(), texts{});
}

TEST_F(dtc_receivers, work_for_many_jobs_in_a_row_that_nobody_waits_for)
{
	for (int i = 0; i < 50; ++i) {
		diag_job *one = new_test_job();
		add_test_transport(one);
		one->sid = 0x19;
		one->dtc_subfunction = 0x0A;
		ecu.send_results = {-1};
		ecu.answers_from(0x7E0, {{0x59, 0x02, 0xFF}});
		EXPECT_EQ(read_dtc_information(agent.ctx, one), -1);
		free_job_contents(one);
		free(one);
	}
	EXPECT_TRUE(receivers_gone());
}

TEST_F(dtc_receivers, change_nothing_of_what_the_requester_is_told)
{
	const struct {
		const char *what;
		int available, init, send;
		const char *cause;
	} rows[] = {
			{"interface missing", 0, 0, -1, "send_dtc_response_to_bridge failed"},
			{"no channel", 1, -1, 0, "Unable open can port"},
			{"not sent", 1, 0, -1, "send_dtc_response_to_bridge failed"},
			{"silent", 1, 0, 0, "send_dtc_response_to_bridge failed"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		agent.forget_replies();
		ecu.available = row.available;
		ecu.init_results = {row.init};
		ecu.send_results = {row.send};
		EXPECT_EQ(execute_diag_job(agent.ctx, job), -1);
		EXPECT_EQ(agent.replies(), texts{error_reply(row.cause)});
		EXPECT_TRUE(receivers_gone());
		EXPECT_EQ(scratch(), row.cause);
	}
}
