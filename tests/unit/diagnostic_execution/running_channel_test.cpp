// The agent's stop while a call on a job's channel takes longer than a stop may.
#include "movra_fleet/diagnostic_execution/running_channel.h"

#include <atomic>
#include <ctime>
#include <thread>

#include "held_lock.h"
#include "job_fixture.h"
#include "movra_fleet/diagnostic_execution/uds_exchange.h"
#include "movra_fleet/diagnostic_execution/version_reading.h"
#include "pause_seam.h"

namespace
{

// Its wait is none of those that the pause seam ends.
class signal_flag
{
public:
	void raise()
	{
		flag.test_and_set();
		flag.notify_all();
	}
	void wait()
	{
		flag.wait(false);
	}

private:
	std::atomic_flag flag;
};

class running_channel : public job_fixture
{
protected:
	// Calls on the channel end only when it is closed.
	running_channel()
	{
		pause_seam::reset();
		cfg->params.kind = 1;
		ecu.init_results = {33};
		ecu.on_call = [this](const fake_uds_call &call) {
			if (call.function == stuck_in) {
				stuck.raise();
				closed.wait();
			}
			if (call.function == "transport_deinit")
				closed.raise();
		};
		add_test_command(job, {0x22});
		add_test_command(job, {0x31});
	}
	~running_channel() override
	{
		pause_seam::reset();
	}

	// False when the job did not end with the result, or its channel was not closed just once.
	bool stop_a_running(int (*run)(agent_ctx *, diag_job *), int result)
	{
		int got = 1;
		std::thread worker([&] { got = run(agent.ctx, job); });
		stuck.wait();
		agent_request_stop(agent.ctx);
		running_channel_end(agent.ctx, 2);
		worker.join();

		EXPECT_EQ(got, result);
		EXPECT_EQ(pause_seam::pauses_s(), std::vector<int64_t>{2});
		std::vector<fake_uds_call> closes = ecu.calls("transport_deinit");
		return closes.size() == 1 && closes[0].handle == 33 && closes[0].kind == 1;
	}
	void stop_a_running_job()
	{
		EXPECT_TRUE(stop_a_running(run_uds_commands, 0));
		ASSERT_EQ(outcomes().size(), 2u);
		EXPECT_EQ(outcomes()[1].error, "Command not executed");
	}

	void stop_a_version_job()
	{
		job->version_kind = VERSION_UDS;
		job->version_query = json_tokener_parse(R"(["22F195","22F189"])");
		EXPECT_TRUE(stop_a_running(read_version, -1));
		EXPECT_EQ(ecu.calls("send_diag_command").size(), 1u);
		EXPECT_EQ(agent.replies(), texts{});
	}

	std::string stuck_in;
	signal_flag stuck, closed;
};

}

TEST_F(running_channel, is_closed_once_by_the_stop_when_a_receive_does_not_end)
{
	stuck_in = "recv_diag_command";
	stop_a_running_job();
	EXPECT_EQ(outcomes()[0].error, "recv_diag_command failed");
}

TEST_F(running_channel, is_closed_once_by_the_stop_when_a_send_does_not_end)
{
	stuck_in = "send_diag_command";
	ecu.send_results = {-1};
	stop_a_running_job();
	EXPECT_EQ(outcomes()[0].error, "send_diag_command failed");
}

TEST_F(running_channel, of_a_version_job_is_closed_once_by_the_stop_when_a_receive_does_not_end)
{
	stuck_in = "recv_diag_command";
	stop_a_version_job();
	EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "recv_diag_command failed"));
}

TEST_F(running_channel, of_a_version_job_is_closed_once_by_the_stop_when_a_send_does_not_end)
{
	stuck_in = "send_diag_command";
	ecu.send_results = {-1};
	stop_a_version_job();
	EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "send_diag_command failed"));
}

TEST_F(running_channel, is_left_to_a_job_that_leaves_it_in_time)
{
	std::thread worker;
	stuck_in = "recv_diag_command";
	bool closed_by_stop = true;
	pause_seam::reset([&] {
		closed_by_stop = !ecu.calls("transport_deinit").empty();
		closed.raise();
		worker.join();
	});
	worker = std::thread([this] { EXPECT_EQ(run_uds_commands(agent.ctx, job), 0); });
	stuck.wait();
	agent_request_stop(agent.ctx);
	running_channel_end(agent.ctx, 2);

	EXPECT_FALSE(closed_by_stop);
	EXPECT_EQ(ecu.calls("transport_deinit").size(), 1u);
	EXPECT_EQ(outcomes().size(), 2u);
}

TEST_F(running_channel, wakes_the_stop_when_its_job_leaves_it)
{
	running_channel_enter(agent.ctx, cfg);
	struct timespec end = {};
	(void)clock_gettime(CLOCK_REALTIME, &end);
	end.tv_sec += 10;
	int waited = -1;
	std::thread worker;
	{
		held_lock lock = hold(&agent.ctx->stop_lock);
		worker = std::thread([this] { EXPECT_TRUE(running_channel_leave(agent.ctx)); });
		// A wait that is not the seam's, on what the stop waits on.
		waited = pthread_cond_timedwait(&agent.ctx->stop_wake, &agent.ctx->stop_lock, &end);
	}
	worker.join();
	EXPECT_EQ(waited, 0);
}

TEST_F(running_channel, is_not_waited_for_when_no_job_runs)
{
	agent_request_stop(agent.ctx);
	running_channel_end(agent.ctx, 2);
	EXPECT_EQ(pause_seam::pauses_s(), std::vector<int64_t>{});
	EXPECT_EQ(ecu.names(), texts{});
}

TEST_F(running_channel, of_a_job_that_is_over_is_not_closed_again)
{
	EXPECT_EQ(run_uds_commands(agent.ctx, job), 0);
	agent_request_stop(agent.ctx);
	running_channel_end(agent.ctx, 2);
	EXPECT_EQ(pause_seam::pauses_s(), std::vector<int64_t>{});
	EXPECT_EQ(ecu.calls("transport_deinit").size(), 1u);
}
