#include "movra_fleet/diagnostic_execution/tester_present.h"

#include <sys/timerfd.h>

#include <atomic>
#include <future>
#include <thread>

#include "job_fixture.h"
#include "support/fail_nth.h"

namespace
{

class tester_present : public job_fixture
{
protected:
	tester_present()
	{
		cfg->handle = 9;
		cfg->params.kind = 1;
		agent.ctx->timers = tvtimer_init(4);
	}
};

}

TEST_F(tester_present, sends_one_frame_and_reads_its_answer)
{
	ecu.answers({{0x7E, 0x00}});
	EXPECT_EQ(send_tester_present(cfg), 0);

	std::vector<fake_uds_call> calls = ecu.calls();
	ASSERT_EQ(ecu.names(), (texts{"send_diag_command", "recv_diag_command"}));
	EXPECT_EQ(calls[0].handle, 9);
	EXPECT_EQ(calls[0].kind, 1);
	EXPECT_EQ(calls[0].data, (fake_bytes{0x3E, 0x00}));
	EXPECT_EQ(calls[0].length, 2u);
	EXPECT_EQ(calls[1].handle, 9);
	EXPECT_EQ(calls[1].kind, 1);
	EXPECT_EQ(calls[1].timeout_ms, 500);
	EXPECT_EQ(calls[1].length, 8u);
	EXPECT_EQ(log(), texts{});
}

TEST_F(tester_present, does_not_look_at_the_answer)
{
	ecu.answers({{0x7F, 0x3E, 0x11}});
	EXPECT_EQ(send_tester_present(cfg), 0);
	EXPECT_EQ(log(), texts{});
}

TEST_F(tester_present, warns_when_the_frame_cannot_be_sent)
{
	ecu.send_results = {-1};
	EXPECT_EQ(send_tester_present(cfg), 0);
	EXPECT_EQ(ecu.names(), texts{"send_diag_command"});
	EXPECT_EQ(log(), texts{"WARN Unable to send testr presnet message"});
}

TEST_F(tester_present, warns_when_the_answer_is_anything_but_0)
{
	for (int result : {-1, 1}) {
		SCOPED_TRACE(result);
		output.clear();
		ecu.answers({fake_answer(result < 0 ? fake_bytes{} : fake_bytes{0x7E, 0x00}, result)});
		EXPECT_EQ(send_tester_present(cfg), 0);
		EXPECT_EQ(log(), texts{"WARN Unable to received message"});
	}
}

TEST_F(tester_present, says_nothing_below_the_level_of_warnings)
{
	verbosity_scope level(LOG_ERR);
	ecu.send_results = {-1, 0};
	EXPECT_EQ(send_tester_present(cfg), 0);
	EXPECT_EQ(send_tester_present(cfg), 0);
	EXPECT_EQ(log(), texts{});
}

TEST_F(tester_present, runs_every_two_seconds_without_end_under_its_name)
{
	EXPECT_EQ(start_tester_present(agent.ctx, cfg), 0);

	const tvtimer &timer = cfg->tester_present_timer;
	EXPECT_STREQ(timer.name, "Tester Present Send Frame");
	EXPECT_EQ(timer.period, 2.0);
	EXPECT_EQ(timer.count, -1);
	EXPECT_EQ(timer.argument, cfg);
	EXPECT_EQ(timer.callback, send_tester_present);
	struct itimerspec armed = {};
	ASSERT_EQ(timerfd_gettime(timer.fd, &armed), 0);
	EXPECT_EQ(armed.it_interval.tv_sec, 2);
	EXPECT_EQ(armed.it_interval.tv_nsec, 0);
	EXPECT_EQ(stop_tester_present(agent.ctx, cfg), 0);
	EXPECT_NE(timerfd_gettime(timer.fd, &armed), 0);
}

TEST_F(tester_present, sends_the_first_frame_before_start_returns_and_the_next_from_the_service)
{
	const std::thread::id starter = std::this_thread::get_id();
	std::promise<std::thread::id> second_sender;
	std::atomic<int> sends = 0;
	ecu.on({0x3E, 0x00}, {{0x7E, 0x00}});
	ecu.on_call = [&](const fake_uds_call &call) {
		if (call.function == "send_diag_command" && ++sends == 2)
			second_sender.set_value(std::this_thread::get_id());
	};

	(void)start_tester_present(agent.ctx, cfg);
	EXPECT_EQ(sends, 1);
	const struct itimerspec soon = {.it_interval = {2, 0}, .it_value = {0, 1'000'000}};
	ASSERT_EQ(timerfd_settime(cfg->tester_present_timer.fd, 0, &soon, nullptr), 0);
	std::future<std::thread::id> sender = second_sender.get_future();
	ASSERT_EQ(sender.wait_for(std::chrono::seconds(10)), std::future_status::ready);
	(void)stop_tester_present(agent.ctx, cfg);

	EXPECT_NE(sender.get(), starter);
	EXPECT_EQ(ecu.requests(), (std::vector<fake_bytes>{{0x3E, 0x00}, {0x3E, 0x00}}));
	EXPECT_EQ(ecu.receive_timeouts_ms(), (std::vector<int>{500, 500}));
}

TEST_F(tester_present, that_could_not_be_started_can_be_stopped)
{
	fail_nth failure("timerfd_create", 1, EMFILE);
	EXPECT_EQ(start_tester_present(agent.ctx, cfg), 0);
	EXPECT_TRUE(failure.fired());
	EXPECT_EQ(stop_tester_present(agent.ctx, cfg), 0);
	EXPECT_EQ(ecu.requests().size(), 0u);
}
