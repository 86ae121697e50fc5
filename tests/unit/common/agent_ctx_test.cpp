#include "movra_fleet/common/agent_ctx.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/fake_tervbus.h"
#include "support/captured_output.h"
#include "support/event.h"
#include "support/fail_nth.h"
#include "support/identity_files.h"

namespace
{

using jobs = std::vector<diag_job *>;

struct agent_context : testing::Test {
	agent_ctx *ctx = agent_ctx_new();

	void SetUp() override
	{
		ASSERT_NE(ctx, nullptr);
	}

	void TearDown() override
	{
		agent_ctx_free(ctx);
	}

	jobs pending()
	{
		jobs found;
		for (diag_job *job = pending_jobs_head(ctx); job != nullptr; job = job->next)
			found.push_back(job);
		return found;
	}
};

diag_job job_of(uint32_t commands)
{
	diag_job job = {};
	job.command_count = commands;
	return job;
}

}

TEST_F(agent_context, starts_empty)
{
	EXPECT_EQ(ctx->bus, nullptr);
	EXPECT_EQ(ctx->pool, nullptr);
	EXPECT_EQ(ctx->timers, nullptr);
	EXPECT_EQ(pending_jobs_head(ctx), nullptr);
	EXPECT_FALSE(agent_stop_requested(ctx));
}

TEST(agent_ctx, is_null_when_memory_is_short)
{
	fail_nth failure("calloc", 1);

	EXPECT_EQ(agent_ctx_new(), nullptr);
}

TEST(agent_ctx, takes_null_at_its_end)
{
	agent_ctx_free(nullptr);
}

TEST_F(agent_context, appends_jobs_at_the_tail_and_shows_the_oldest)
{
	diag_job a = {}, b = {}, c = {};
	a.next = &c; // whatever stood there

	for (diag_job *job : {&a, &b, &c}) {
		EXPECT_TRUE(pending_jobs_append(ctx, job));
		EXPECT_EQ(pending_jobs_head(ctx), &a);
	}
	EXPECT_EQ(pending(), (jobs{&a, &b, &c}));
	EXPECT_EQ(ctx->pending_job_count, 3u);
}

TEST_F(agent_context, removes_a_job_wherever_it_stands)
{
	diag_job a = job_of(1), b = job_of(2), c = job_of(4);
	for (diag_job *job : {&a, &b, &c})
		ASSERT_TRUE(pending_jobs_append(ctx, job));

	pending_jobs_remove(ctx, &b);
	EXPECT_EQ(pending(), (jobs{&a, &c}));
	EXPECT_EQ(b.next, nullptr);
	pending_jobs_remove(ctx, &c);
	EXPECT_EQ(pending(), (jobs{&a}));
	EXPECT_EQ(ctx->pending_command_count, 1u);
	pending_jobs_remove(ctx, &a);
	EXPECT_EQ(pending(), (jobs{}));
	EXPECT_EQ(ctx->pending_job_count, 0u);
	EXPECT_EQ(ctx->pending_command_count, 0u);
}

TEST_F(agent_context, leaves_the_list_alone_when_a_job_is_not_in_it)
{
	diag_job a = job_of(1), stranger = job_of(5);
	ASSERT_TRUE(pending_jobs_append(ctx, &a));

	pending_jobs_remove(ctx, &stranger);

	EXPECT_EQ(pending(), (jobs{&a}));
	EXPECT_EQ(ctx->pending_command_count, 1u);
}

TEST_F(agent_context, refuses_jobs_beyond_the_limit)
{
	std::vector<diag_job> many(pending_jobs_limit + 1);
	for (uint32_t index = 0; index < pending_jobs_limit; ++index)
		ASSERT_TRUE(pending_jobs_append(ctx, &many[index]));

	EXPECT_FALSE(pending_jobs_append(ctx, &many.back()));
	EXPECT_EQ(pending().size(), pending_jobs_limit);

	pending_jobs_remove(ctx, &many.front());
	EXPECT_TRUE(pending_jobs_append(ctx, &many.back()));
}

TEST_F(agent_context, refuses_commands_beyond_the_limit)
{
	diag_job most = job_of(pending_commands_limit - 1), one = job_of(1), two = job_of(2), none = job_of(0),
			 too_many = job_of(pending_commands_limit + 1), absurd = job_of(UINT32_MAX);
	EXPECT_FALSE(pending_jobs_append(ctx, &too_many));
	EXPECT_FALSE(pending_jobs_append(ctx, &absurd));
	EXPECT_TRUE(pending_jobs_append(ctx, &most));
	EXPECT_FALSE(pending_jobs_append(ctx, &two));
	EXPECT_FALSE(pending_jobs_append(ctx, &absurd));
	EXPECT_TRUE(pending_jobs_append(ctx, &one));
	EXPECT_TRUE(pending_jobs_append(ctx, &none));
	EXPECT_FALSE(pending_jobs_append(ctx, &two));
}

TEST_F(agent_context, refuses_memory_beyond_the_limit)
{
	diag_job most = {}, one = {}, two = {}, too_much = {}, absurd = {};
	most.memory = pending_memory_limit - 1;
	one.memory = 1;
	two.memory = 2;
	too_much.memory = pending_memory_limit + 1;
	absurd.memory = UINT32_MAX;
	EXPECT_FALSE(pending_jobs_append(ctx, &too_much));
	EXPECT_FALSE(pending_jobs_append(ctx, &absurd));
	EXPECT_TRUE(pending_jobs_append(ctx, &most));
	EXPECT_FALSE(pending_jobs_append(ctx, &two));
	EXPECT_FALSE(pending_jobs_append(ctx, &absurd));
	EXPECT_TRUE(pending_jobs_append(ctx, &one));
	EXPECT_EQ(ctx->pending_memory, pending_memory_limit);

	pending_jobs_remove(ctx, &most);
	EXPECT_TRUE(pending_jobs_append(ctx, &two));
	EXPECT_EQ(ctx->pending_memory, 3u);
}

TEST_F(agent_context, takes_jobs_and_gives_them_on_several_threads)
{
	constexpr uint32_t rounds = 500;
	std::vector<diag_job> many(rounds, job_of(3));
	std::thread intake([&] {
		for (diag_job &job : many)
			while (!pending_jobs_append(ctx, &job))
				std::this_thread::yield();
	});
	for (uint32_t done = 0; done < rounds;) {
		diag_job *head = pending_jobs_head(ctx);
		if (head == nullptr) {
			std::this_thread::yield();
			continue;
		}
		EXPECT_EQ(head, &many[done]);
		pending_jobs_remove(ctx, head);
		++done;
	}
	intake.join();
	EXPECT_EQ(ctx->pending_command_count, 0u);
}

TEST_F(agent_context, sends_a_reply_to_a_unit_address)
{
	fake_bus::reset();
	identity_files identity;
	captured_output output;
	ctx->bus = mobus_init(nullptr, identity.directory().c_str(), "tcp://localhost:1", ctx, nullptr, nullptr);
	ASSERT_NE(ctx->bus, nullptr);

	agent_send_reply(ctx, "{}", "UNIT-2");

	EXPECT_EQ(fake_bus::last_sent().text, "{}");
	EXPECT_EQ(fake_bus::last_sent().destination, (std::vector<fake_bus::address>{fake_bus::unit("UNIT-2")}));
	mobus_deinit(agent_take_bus(ctx));
}

TEST_F(agent_context, hands_the_bus_handle_out_once_and_lets_later_replies_find_none)
{
	captured_output output;
	mobus_connection *handle = reinterpret_cast<mobus_connection *>(&output); // not looked at
	ctx->bus = handle;

	EXPECT_EQ(agent_take_bus(ctx), handle);
	EXPECT_EQ(agent_take_bus(ctx), nullptr);
	agent_send_reply(ctx, "{}", "UNIT-2");

	EXPECT_TRUE(output.has_line("ERR", "movrabus", "Movra Bus connection is NULL"));
}

TEST_F(agent_context, keeps_the_bus_handle_until_a_reply_under_way_is_sent)
{
	fake_bus::reset();
	identity_files identity;
	captured_output output;
	ctx->bus = mobus_init(nullptr, identity.directory().c_str(), "tcp://localhost:1", ctx, nullptr, nullptr);
	ASSERT_NE(ctx->bus, nullptr);
	event sending, go;
	std::atomic<bool> taken = false;
	std::atomic<bool> taken_during_the_send = false;
	fake_bus::on_call("tervbus_send_message", [&] {
		sending.raise();
		EXPECT_TRUE(go.wait());
		taken_during_the_send = taken.load();
	});
	std::thread reply([&] { agent_send_reply(ctx, "{}", "UNIT-2"); });
	ASSERT_TRUE(sending.wait());
	mobus_connection *bus = nullptr;
	fail_nth locks("pthread_mutex_lock", 0, 0, fail_nth::any_thread);
	std::thread teardown([&] {
		bus = agent_take_bus(ctx);
		taken = true;
	});
	EXPECT_TRUE(locks.wait_for_calls(1));
	go.raise();
	reply.join();
	teardown.join();

	EXPECT_FALSE(taken_during_the_send);
	EXPECT_EQ(fake_bus::sent().size(), 1u);
	mobus_deinit(bus);
}

TEST_F(agent_context, ends_a_pause_when_a_stop_is_requested)
{
	fail_nth waits("pthread_cond_clockwait", 0);
	auto begin = std::chrono::steady_clock::now();
	std::thread pausing([&] { agent_pause(ctx, 3600); });
	EXPECT_TRUE(waits.wait_for_calls(1));

	agent_request_stop(ctx);
	pausing.join();

	EXPECT_TRUE(agent_stop_requested(ctx));
	EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::minutes(1));
}

TEST_F(agent_context, does_not_pause_after_a_stop_was_requested)
{
	agent_request_stop(ctx);
	fail_nth waits("pthread_cond_clockwait", 0);

	agent_pause(ctx, UINT32_MAX);

	EXPECT_EQ(waits.calls(), 0u);
}

TEST_F(agent_context, pauses_until_the_time_is_over)
{
	fail_nth waits("pthread_cond_clockwait", 1, ETIMEDOUT);

	agent_pause(ctx, 3600);

	EXPECT_TRUE(waits.fired());
	EXPECT_FALSE(agent_stop_requested(ctx));
}
