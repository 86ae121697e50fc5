#include "threadpool.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/captured_output.h"
#include "support/event.h"
#include "support/fail_nth.h"

namespace
{

using texts = std::vector<std::string>;

void call(void *function)
{
	(*static_cast<std::function<void()> *>(function))();
}

constexpr const char refusal[] = "can not add to pool as pool got request to de initialize\n";

// A job that occupies one worker until it is let go.
struct blocker {
	event started, go;
	std::function<void()> job = [this] {
		started.raise();
		EXPECT_TRUE(go.wait());
	};
};

struct pool_of_one : testing::Test {
	captured_output output;
	threadpool *pool = nullptr;

	void SetUp() override
	{
		ASSERT_EQ(threadpool_init(&pool, 1), 0);
	}
};

}

TEST_F(pool_of_one, says_that_its_thread_was_created)
{
	threadpool_destroy(pool);

	EXPECT_EQ(output.error_lines().at(0), "threadpool_init:247: created thread at 0 index");
}

TEST_F(pool_of_one, runs_jobs_in_the_order_in_which_they_were_added)
{
	blocker first;
	std::string order;
	event done;
	std::function<void()> a = [&] { order += 'A'; }, b = [&] { order += 'B'; }, c = [&] {
		order += 'C';
		done.raise();
	};
	ASSERT_EQ(threadpool_add_work(pool, call, &first.job), 0);
	ASSERT_TRUE(first.started.wait());
	for (auto *job : {&a, &b, &c})
		EXPECT_EQ(threadpool_add_work(pool, call, job), 0);
	first.go.raise();

	EXPECT_TRUE(done.wait());
	EXPECT_EQ(order, "ABC");
	threadpool_destroy(pool);
}

TEST(threadpool, says_that_it_found_no_job_to_drop_and_none_to_run)
{
	captured_output output;
	threadpool *pool = nullptr;
	fail_nth waits("pthread_cond_wait", 0);
	ASSERT_EQ(threadpool_init(&pool, 1), 0);
	ASSERT_TRUE(waits.wait_for_calls(1));

	EXPECT_EQ(threadpool_destroy(pool), 0);

	EXPECT_EQ(output.error_lines(),
			(texts{"threadpool_init:247: created thread at 0 index", "job_flush:155: No Job found",
					"job_pull:112: No Job found"}));
}

TEST_F(pool_of_one, waits_for_the_job_under_way_and_drops_the_queued_ones)
{
	blocker first;
	bool ran = false;
	std::function<void()> second = [&] {
		ran = true;
	};
	ASSERT_EQ(threadpool_add_work(pool, call, &first.job), 0);
	ASSERT_TRUE(first.started.wait());
	ASSERT_EQ(threadpool_add_work(pool, call, &second), 0);
	ASSERT_EQ(threadpool_add_work(pool, call, &second), 0);
	output.clear();
	// Work is refused from the moment in which destruction begins, while the first job still runs.
	std::thread helper([&] {
		while (threadpool_add_work(pool, call, &second) == 0)
			std::this_thread::yield();
		first.go.raise();
	});

	EXPECT_EQ(threadpool_destroy(pool), 0);
	helper.join();

	EXPECT_FALSE(ran);
	EXPECT_EQ(output.text(), refusal);
	EXPECT_EQ(output.error_text(), "") << "the flush found jobs, and the worker looked for no more";
}

TEST_F(pool_of_one, says_that_a_job_is_invalid_when_memory_is_short)
{
	std::function<void()> job = [] {
	};
	{
		fail_nth failure("calloc", 1, ENOMEM, fail_nth::this_thread);
		EXPECT_EQ(threadpool_add_work(pool, call, &job), -1);
	}
	EXPECT_EQ(output.error_lines().back(), "job_push:135: Invalid Job assigned");
	threadpool_destroy(pool);
}

TEST_F(pool_of_one, runs_jobs_that_are_added_by_a_job)
{
	event done;
	std::function<void()> second = [&] {
		done.raise();
	};
	std::function<void()> first = [&] {
		EXPECT_EQ(threadpool_add_work(pool, call, &second), 0);
	};
	ASSERT_EQ(threadpool_add_work(pool, call, &first), 0);

	EXPECT_TRUE(done.wait());
	threadpool_destroy(pool);
}

TEST(threadpool, takes_a_negative_count_as_one)
{
	captured_output output;
	threadpool *pool = nullptr;
	ASSERT_EQ(threadpool_init(&pool, -3), 0);
	threadpool_destroy(pool);

	texts lines = output.error_lines();
	EXPECT_EQ(std::count(lines.begin(), lines.end(), "threadpool_init:247: created thread at 0 index"), 1);
	EXPECT_EQ(output.error_text().find("at 1 index"), std::string::npos);
}

TEST(threadpool, accepts_work_and_never_runs_it_with_a_count_of_zero)
{
	captured_output output;
	threadpool *pool = nullptr;
	bool ran = false;
	std::function<void()> job = [&] {
		ran = true;
	};
	ASSERT_EQ(threadpool_init(&pool, 0), 0);

	EXPECT_EQ(threadpool_add_work(pool, call, &job), 0);
	EXPECT_EQ(threadpool_destroy(pool), 0);

	EXPECT_FALSE(ran);
	EXPECT_EQ(output.error_text(), "");
}

TEST(threadpool, wakes_every_thread_at_its_end)
{
	captured_output output;
	for (int round = 0; round < 20; ++round) {
		threadpool *pool = nullptr;
		ASSERT_EQ(threadpool_init(&pool, 8), 0);
		EXPECT_EQ(threadpool_destroy(pool), 0);
	}
}

TEST(threadpool, runs_jobs_on_all_its_threads_at_once)
{
	captured_output output;
	threadpool *pool = nullptr;
	ASSERT_EQ(threadpool_init(&pool, 3), 0);
	event started, go, done;
	std::function<void()> job = [&] {
		started.raise();
		EXPECT_TRUE(go.wait());
		done.raise();
	};
	for (int index = 0; index < 3; ++index)
		ASSERT_EQ(threadpool_add_work(pool, call, &job), 0);

	EXPECT_TRUE(started.wait(3));
	go.raise();
	EXPECT_TRUE(done.wait(3));
	threadpool_destroy(pool);
}

TEST(threadpool, takes_null_at_its_end)
{
	EXPECT_EQ(threadpool_destroy(nullptr), 0);
}

TEST(threadpool, reports_each_failed_allocation_of_its_start)
{
	const texts rows[] = {
			{"threadpool_init:221: Can't Allocate memory"},
			{"threadpool_init:228: Can't Allocate memory to thred"},
			{"jobqueue_init:84: Can't Allocate memory", "threadpool_init:235: Job queue Initialization failed"},
			{"jobqueue_init:91: queue semaphore failed to assign memory",
					"threadpool_init:235: Job queue Initialization failed"},
	};
	unsigned nth = 0;
	for (const texts &lines : rows) {
		SCOPED_TRACE(++nth);
		captured_output output;
		threadpool *pool = nullptr;
		fail_nth failure("calloc", nth, ENOMEM, fail_nth::this_thread);
		EXPECT_EQ(threadpool_init(&pool, 1), -1);
		EXPECT_TRUE(failure.fired());
		EXPECT_EQ(pool, nullptr);
		EXPECT_EQ(output.error_lines(), lines);
	}
	captured_output output;
	threadpool *pool = nullptr;
	fail_nth failure("calloc", nth + 1, ENOMEM, fail_nth::this_thread);
	EXPECT_EQ(threadpool_init(&pool, 0), 0) << "every allocation has a row";
	EXPECT_FALSE(failure.fired());
	threadpool_destroy(pool);
}

TEST(threadpool, reports_a_semaphore_that_cannot_be_initialised)
{
	for (const char *function : {"pthread_mutex_init", "pthread_cond_init"}) {
		SCOPED_TRACE(function);
		captured_output output;
		threadpool *pool = nullptr;
		fail_nth failure(function, 1, EAGAIN);
		EXPECT_EQ(threadpool_init(&pool, 1), -1);
		EXPECT_EQ(output.error_lines(),
				(texts{"jobqueue_init:97: queue semaphore failed to initialize",
						"threadpool_init:235: Job queue Initialization failed"}));
	}
}

TEST(threadpool, takes_a_positive_error_of_thread_creation_as_success)
{
	captured_output output;
	threadpool *pool = nullptr;
	fail_nth failure("pthread_create", 1, EAGAIN);
	bool ran = false;
	std::function<void()> job = [&] {
		ran = true;
	};

	ASSERT_EQ(threadpool_init(&pool, 1), 0);
	EXPECT_EQ(threadpool_add_work(pool, call, &job), 0);
	EXPECT_EQ(threadpool_destroy(pool), 0) << "the thread that did not start is not joined";

	EXPECT_FALSE(ran);
	EXPECT_EQ(output.error_lines(), (texts{"threadpool_init:247: created thread at 0 index"}));
}

TEST(threadpool, gives_up_on_a_negative_result_of_thread_creation_and_ends_the_threads_before)
{
	captured_output output;
	threadpool *pool = nullptr;
	fail_nth failure("pthread_create", 3, -1);

	EXPECT_EQ(threadpool_init(&pool, 4), -1);

	EXPECT_EQ(pool, nullptr);
	texts lines = output.error_lines();
	EXPECT_EQ(std::count(lines.begin(), lines.end(), "thread_init:195 Can't create thread"), 1);
	EXPECT_EQ(std::count(lines.begin(), lines.end(), "threadpool_init:244: can't create thread at 2 index"), 1);
	EXPECT_EQ(output.error_text().find("created thread at 2"), std::string::npos);
}
