// The start and the end of the timer service, and what happens without one.
#include <cerrno>
#include <chrono>

#include <gtest/gtest.h>

#include "support/captured_output.h"
#include "support/fail_nth.h"
#include "support/verbosity_scope.h"
#include "unit/runtime/timers.h"

TEST(tvtimer, reports_each_failure_of_its_start)
{
	const struct {
		const char *function;
		int error;
		const char *line;
	} rows[] = {
			{"calloc", ENOMEM, "Memory Allocation failed"},
			{"epoll_create", EMFILE, "epoll_create failed"},
			{"pthread_mutex_init", EAGAIN, "pthread_mutex_init error"},
			{"pthread_create", -1, "Spawning of thread failed"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		captured_output output;
		size_t descriptors = open_descriptors();
		fail_nth failure(row.function, 1, row.error);
		EXPECT_EQ(tvtimer_init(1024), nullptr);
		EXPECT_EQ(output.messages("ERR"), (texts{row.line}));
		EXPECT_EQ(open_descriptors(), descriptors);
	}
}

TEST(tvtimer, refuses_a_capacity_that_epoll_refuses)
{
	captured_output output;

	EXPECT_EQ(tvtimer_init(0), nullptr);
	EXPECT_TRUE(output.has_line("ERR", "tvtimer", "epoll_create failed"));
}

TEST(tvtimer, takes_a_positive_error_of_thread_creation_as_success)
{
	captured_output output;
	tvtimer_service *service = nullptr;
	{
		fail_nth failure("pthread_create", 1, EAGAIN);
		service = tvtimer_init(1024);
	}
	ASSERT_NE(service, nullptr);
	event runs;
	tvtimer timer = timer_of(&runs, short_period, -1);

	EXPECT_EQ(tvtimer_add(service, &timer), 0);
	tvtimer_deinit(service);

	EXPECT_EQ(runs.times(), 1u) << "the first run needs no thread";
	EXPECT_EQ(output.messages("ERR"), (texts{"Timer de init success"}));
}

TEST(tvtimer, starts_and_ends_without_its_wake_descriptor)
{
	for (const char *function : {"eventfd", "epoll_ctl"}) {
		SCOPED_TRACE(function);
		captured_output output;
		size_t descriptors = open_descriptors();
		tvtimer_service *service = nullptr;
		{
			fail_nth failure(function, 1);
			service = tvtimer_init(1024);
		}
		ASSERT_NE(service, nullptr);
		auto begin = std::chrono::steady_clock::now();
		tvtimer_deinit(service);
		EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
		EXPECT_EQ(open_descriptors(), descriptors);
	}
}

TEST(tvtimer, ends_the_process_when_its_table_finds_no_memory)
{
#ifdef __SANITIZE_THREAD__ // a fork of a process that had threads cannot start threads of its own under it
	GTEST_FLAG_SET(death_test_style, "threadsafe");
#endif
	auto add_without_memory = [] {
		verbosity_scope quiet(LOG_FATAL);
		tvtimer_service *service = tvtimer_init(1024);
		event runs;
		tvtimer timer = timer_of(&runs, long_period, -1);
		fail_nth failure("malloc", 1, ENOMEM, fail_nth::this_thread);
		(void)tvtimer_add(service, &timer);
	};

	EXPECT_EXIT(add_without_memory(), testing::ExitedWithCode(255), "");
}

TEST(tvtimer, says_that_there_is_no_service)
{
	captured_output output;
	tvtimer timer = {};

	tvtimer_deinit(nullptr);
	EXPECT_EQ(tvtimer_add(nullptr, &timer), -1);
	EXPECT_EQ(tvtimer_delete(nullptr, 3), 0);

	EXPECT_EQ(output.messages("ERR"), (texts(3, "Timer not initialized")));
}
