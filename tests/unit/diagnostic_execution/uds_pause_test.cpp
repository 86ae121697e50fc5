// Pauses between commands, and the agent's stop in the middle of a job.
#include "job_fixture.h"
#include "movra_fleet/diagnostic_execution/uds_exchange.h"
#include "pause_seam.h"

namespace
{

class uds_pause : public job_fixture
{
protected:
	uds_pause()
	{
		pause_seam::reset();
		agent.ctx->timers = tvtimer_init(4);
	}
	~uds_pause() override
	{
		pause_seam::reset();
	}
	// Runs the job; a stop of the agent, wherever it comes, must still close the channel and report.
	std::vector<outcome> run()
	{
		output.clear();
		EXPECT_EQ(run_uds_commands(agent.ctx, job), 0);
		EXPECT_EQ(ecu.names().back(), "transport_deinit");
		return outcomes();
	}
	std::function<void()> stop_the_agent = [this] {
		agent_request_stop(agent.ctx);
	};
};

const fake_bytes keep_alive = {0x3E, 0x00};

}

TEST_F(uds_pause, follows_its_command_for_as_long_as_asked)
{
	const struct {
		uint32_t timer;
		std::vector<int64_t> pauses;
		size_t frames;
	} rows[] = {
			{0, {}, 0},
			{1, {1}, 0},
			{2, {2}, 0},
			{3, {3}, 1},
			{60, {60}, 1},
			{0xFFFFFFFF, {0xFFFFFFFF}, 1},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.timer);
		pause_seam::reset();
		agent.forget_replies();
		size_t requests_before = ecu.requests().size();
		ecu.on({0x10, 0x03}, {{0x50, 0x03}});
		ecu.on(keep_alive, {{0x7E, 0x00}});
		add_test_command(job, {0x10, 0x03}, row.timer);

		EXPECT_EQ(run()[0].error, "none");

		EXPECT_EQ(pause_seam::pauses_s(), row.pauses);
		EXPECT_EQ(ecu.requests().size() - requests_before, 1 + row.frames);
	}
}

TEST_F(uds_pause, lies_between_the_answer_and_the_next_command)
{
	std::vector<fake_bytes> before_pause;
	pause_seam::reset([&] { before_pause = ecu.requests(); });
	ecu.answers({{0x50, 0x03}, {0x7E, 0x00}, {0x62}});
	add_test_command(job, {0x10, 0x03}, 3);
	add_test_command(job, {0x22});

	run();

	EXPECT_EQ(before_pause, (std::vector<fake_bytes>{{0x10, 0x03}, keep_alive}));
	EXPECT_EQ(ecu.requests(), (std::vector<fake_bytes>{{0x10, 0x03}, keep_alive, {0x22}}));
}

TEST_F(uds_pause, has_a_keep_alive_on_the_jobs_channel_that_ends_with_it)
{
	bool watched = false;
	pause_seam::reset([&] { watched = cfg->tester_present_timer.fd >= 0; });
	ecu.init_results = {33};
	ecu.answers({{0x50, 0x03}});
	add_test_command(job, {0x10, 0x03}, 3);
	verbosity_scope detail(LOG_DBG);

	run();

	EXPECT_TRUE(watched);
	EXPECT_EQ(ecu.calls("send_diag_command")[1].handle, 33);
	EXPECT_EQ(output.count("INFO", "tvtimer",
					  "adding timer \"Tester Present Send Frame\" fd=" + std::to_string(cfg->tester_present_timer.fd) +
							  " period=2.000 Seconds"),
			1u);
	EXPECT_EQ(output.count("DBG", "tvtimer", "Timer deleted Successfully"), 1u);
}

TEST_F(uds_pause, goes_on_when_the_keep_alive_fails)
{
	ecu.on({0x10, 0x03}, {{0x50, 0x03}});
	ecu.on({0x22}, {{0x62}});
	add_test_command(job, {0x10, 0x03}, 3);
	add_test_command(job, {0x22});

	std::vector<outcome> all = run();

	ASSERT_EQ(all.size(), 2u);
	EXPECT_EQ(all[1].error, "none");
	EXPECT_TRUE(output.has_line("WARN", "movra_fleet", "Unable to received message"));
}

TEST_F(uds_pause, does_not_follow_a_failed_command)
{
	ecu.answers({{0x7F, 0x10, 0x22}});
	add_test_command(job, {0x10, 0x03}, 60);
	run();
	EXPECT_EQ(pause_seam::pauses_s(), std::vector<int64_t>{});
}

TEST_F(uds_pause, does_not_follow_when_the_agent_stops_during_the_command)
{
	ecu.answers({fake_answer({0x50, 0x03}, 0, 0, stop_the_agent)});
	add_test_command(job, {0x10, 0x03}, 60);
	EXPECT_EQ(run()[0].error, "none");
	EXPECT_EQ(pause_seam::pauses_s(), std::vector<int64_t>{});
	EXPECT_EQ(ecu.requests().size(), 1u);
}

TEST_F(uds_pause, cut_short_by_the_agents_stop_leaves_the_next_commands_unreached)
{
	pause_seam::reset(stop_the_agent);
	ecu.answers({{0x50, 0x03}, {0x7E, 0x00}});
	add_test_command(job, {0x10, 0x03}, 60);
	add_test_command(job, {0x22});

	std::vector<outcome> all = run();

	ASSERT_EQ(all.size(), 2u);
	EXPECT_EQ(all[0].error, "none");
	EXPECT_EQ(all[1].error, "Command not executed");
	EXPECT_EQ(all[1].requested_time, "");
	EXPECT_EQ(ecu.requests(), (std::vector<fake_bytes>{{0x10, 0x03}, keep_alive}));
}

TEST_F(uds_pause, of_a_stopped_agent_has_no_first_command_either)
{
	stop_the_agent();
	add_test_command(job, {0x10, 0x03});

	EXPECT_EQ(run_uds_commands(agent.ctx, job), -1);

	EXPECT_EQ(only_outcome().error, "Command not executed");
	EXPECT_EQ(ecu.requests().size(), 0u);
}

TEST_F(uds_pause, and_the_wait_for_pending_answers_end_when_the_agent_stops)
{
	ecu.answers({{0x7F, 0x31, 0x78}, fake_answer({0x7F, 0x31, 0x78}, 0, 0, stop_the_agent),
			fake_answer({0x7F, 0x31, 0x78}, 0, 0, {}, true)});
	add_test_command(job, {0x31, 0x01});
	add_test_command(job, {0x22});

	std::vector<outcome> all = run();

	ASSERT_EQ(all.size(), 2u);
	EXPECT_EQ(all[0].response, "7F3178");
	EXPECT_EQ(all[0].error, "recv_diag_command failed");
	EXPECT_EQ(all[1].error, "Command not executed");
	EXPECT_EQ(ecu.receive_timeouts_ms().size(), 2u);
}

TEST_F(uds_pause, and_the_key_are_left_out_when_the_agent_stops)
{
	job->security = static_cast<security_access_config *>(calloc(1, sizeof(security_access_config)));
	job->security->location = strdup(FAKE_PLUGIN_DIRECTORY "/fake_ecusecalgo");
	job->security->script = strdup("seed");
	ecu.answers({fake_answer({0x67, 0x01, 1, 2, 3, 4}, 0, 0, stop_the_agent)});
	add_test_command(job, {0x27, 0x01});

	EXPECT_EQ(run()[0].response, "670101020304");
	EXPECT_EQ(ecu.requests().size(), 1u);
}

TEST_F(uds_pause, of_a_job_reports_to_a_bus_that_is_already_gone)
{
	pause_seam::reset([this] {
		agent_request_stop(agent.ctx);
		mobus_deinit(agent_take_bus(agent.ctx));
	});
	ecu.answers({{0x50, 0x03}});
	add_test_command(job, {0x10, 0x03}, 1);

	output.clear();
	EXPECT_EQ(run_uds_commands(agent.ctx, job), 0);

	EXPECT_TRUE(output.has_line("ERR", "movrabus", "Movra Bus connection is NULL"));
	EXPECT_EQ(agent.replies(), texts{});
	EXPECT_EQ(job->commands, nullptr);
}
