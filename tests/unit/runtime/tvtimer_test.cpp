#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/captured_output.h"
#include "support/event.h"
#include "support/fail_nth.h"
#include "support/verbosity_scope.h"
#include "unit/runtime/timers.h"

namespace
{

int call(void *argument)
{
	(*static_cast<std::function<void()> *>(argument))();
	return 0;
}

std::string with_fd(const std::string &before, int fd, const std::string &after = "")
{
	return before + std::to_string(fd) + after;
}

struct timer_service : testing::Test {
	verbosity_scope scope{LOG_DBG};
	size_t descriptors_before = open_descriptors();
	std::unique_ptr<captured_output> output = std::make_unique<captured_output>();
	tvtimer_service *service = nullptr;
	event runs;

	void SetUp() override
	{
		service = tvtimer_init(1024);
		ASSERT_NE(service, nullptr);
	}

	void TearDown() override
	{
		tvtimer_deinit(service);
		output.reset();
		EXPECT_EQ(open_descriptors(), descriptors_before) << "a descriptor stayed open";
	}
};

// The epoll instance among the open descriptors: the one that the service opened.
int epoll_of_the_service()
{
	for (int fd = 3; fd < 1024; ++fd) {
		char target[64] = "";
		std::string link = "/proc/self/fd/" + std::to_string(fd);
		if (readlink(link.c_str(), target, sizeof target - 1) > 0 && std::string(target) == "anon_inode:[eventpoll]")
			return fd;
	}
	return -1;
}

// Waits until the service has drained expiries of the timer: reads that gave something.
bool wait_for_expiries(const fail_nth &reads, unsigned count)
{
	return reads.wait_for_calls(2 * count); // each drain ends with a read that gives nothing
}

}

TEST_F(timer_service, runs_a_timer_when_it_is_added)
{
	tvtimer timer = timer_of(&runs, long_period, -1);

	EXPECT_EQ(tvtimer_add(service, &timer), 0);

	EXPECT_EQ(runs.times(), 1u);
	EXPECT_EQ(output->messages(),
			(texts{with_fd("adding timer \"a timer\" fd=", timer.fd, " period=3600.000 Seconds"),
					"Timer added Successfully", "process timer \"a timer\""}));
	EXPECT_EQ(output->messages("INFO").size(), 1u);
	EXPECT_EQ(output->messages("DBG").size(), 2u);
	EXPECT_EQ(output->records()[0].source, "tvtimer");
}

TEST_F(timer_service, runs_a_timer_without_end_each_period)
{
	tvtimer timer = timer_of(&runs, short_period, -1);

	EXPECT_EQ(tvtimer_add(service, &timer), 0);

	EXPECT_TRUE(runs.wait(5));
	EXPECT_EQ(timer.count, -1);
}

TEST_F(timer_service, runs_a_timer_as_often_as_its_count_says)
{
	for (int32_t count : {1, 3}) {
		SCOPED_TRACE(count);
		event counted;
		tvtimer timer = timer_of(&counted, short_period, count);
		fail_nth reads("read", 0);

		EXPECT_EQ(tvtimer_add(service, &timer), 0);

		EXPECT_TRUE(wait_for_expiries(reads, static_cast<unsigned>(count) + 2)) << "it stays armed";
		EXPECT_EQ(counted.times(), static_cast<unsigned>(count));
		EXPECT_EQ(timer.count, count) << "the caller's count is left alone";
		EXPECT_EQ(tvtimer_delete(service, timer.fd), 0);
	}
}

TEST_F(timer_service, neither_arms_nor_runs_a_timer_with_a_count_of_zero)
{
	tvtimer timer = timer_of(&runs, short_period, 0);
	fail_nth arming("timerfd_settime", 0);

	EXPECT_EQ(tvtimer_add(service, &timer), 0);

	EXPECT_EQ(arming.calls(), 0u);
	EXPECT_EQ(runs.times(), 0u);
	output->clear();
	EXPECT_EQ(tvtimer_delete(service, timer.fd), 0);
	EXPECT_TRUE(output->has_line("DBG", "tvtimer", "Timer deleted Successfully"));
}

TEST_F(timer_service, runs_a_timer_with_a_period_of_zero_once)
{
	tvtimer timer = timer_of(&runs, 0, -1);
	EXPECT_EQ(tvtimer_add(service, &timer), 0);

	event later;
	tvtimer other = timer_of(&later, short_period, -1, "another");
	EXPECT_EQ(tvtimer_add(service, &other), 0);
	EXPECT_TRUE(later.wait(4));
	EXPECT_EQ(runs.times(), 1u);
}

TEST_F(timer_service, takes_a_timer_without_a_callback)
{
	tvtimer timer = {"idle", 0, short_period, nullptr, -1, nullptr};
	fail_nth reads("read", 0);

	EXPECT_EQ(tvtimer_add(service, &timer), 0);

	EXPECT_TRUE(wait_for_expiries(reads, 2));
	EXPECT_FALSE(output->has_line("DBG", "tvtimer", "process timer \"idle\""));
}

TEST_F(timer_service, shows_periods_in_seconds_and_milliseconds)
{
	const struct {
		double period;
		const char *shown;
	} rows[] = {
			{2.5, "2.500"},
			{2.0, "2.000"},
			{0.0009, "0.000"},
			{0.25, "0.250"},
			{1e8 + 0.5, "100000000.500"},
			{4e9 + 0.25, "4000000000.250"}, // more than 32 bits
			{1e18, "1000000000000000000.000"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.period);
		output->clear();
		tvtimer timer = timer_of(&runs, row.period, 1);
		EXPECT_EQ(tvtimer_add(service, &timer), 0);
		EXPECT_TRUE(output->has_line("INFO", "tvtimer",
				with_fd("adding timer \"a timer\" fd=", timer.fd, std::string(" period=") + row.shown + " Seconds")));
		EXPECT_EQ(tvtimer_delete(service, timer.fd), 0);
	}
}

TEST_F(timer_service, cannot_arm_a_period_that_is_no_time)
{
	for (double period : {-1.0, -0.5, 1e300, -1e300, std::numeric_limits<double>::infinity(), std::nan("")}) {
		SCOPED_TRACE(period);
		output->clear();
		tvtimer timer = timer_of(&runs, period, 1);
		EXPECT_EQ(tvtimer_add(service, &timer), -1);
		EXPECT_TRUE(output->has_line("ERR", "tvtimer", "errors timerfd_settime"));
	}
	EXPECT_EQ(runs.times(), 0u);
}

TEST_F(timer_service, deletes_a_timer_and_closes_its_descriptor)
{
	tvtimer timer = timer_of(&runs, long_period, -1);
	ASSERT_EQ(tvtimer_add(service, &timer), 0);
	output->clear();

	EXPECT_EQ(tvtimer_delete(service, timer.fd), 0);

	EXPECT_EQ(output->messages("DBG"),
			(texts{with_fd("deleting timerfd=", timer.fd), with_fd("deleting timer \"a timer\" fd=", timer.fd),
					"Timer deleted Successfully"}));
	EXPECT_EQ(output->records().size(), 3u);
	EXPECT_EQ(fcntl(timer.fd, F_GETFD), -1);
}

TEST_F(timer_service, deleting_an_unknown_descriptor_is_no_failure)
{
	output->clear();

	EXPECT_EQ(tvtimer_delete(service, 777), 0);
	EXPECT_EQ(output->messages("DBG"), (texts{"deleting timerfd=777", "No timer found"}));
}

TEST_F(timer_service, waits_in_delete_for_a_run_under_way_and_lets_none_follow)
{
	event started, go;
	unsigned finished = 0; // by the callback, read after the deletion
	bool first = true;
	std::function<void()> work = [&] {
		if (first) {
			first = false;
			return;
		}
		started.raise();
		EXPECT_TRUE(go.wait());
		++finished;
	};
	tvtimer timer = {"slow", 0, short_period, &work, -1, call};
	ASSERT_EQ(tvtimer_add(service, &timer), 0);
	ASSERT_TRUE(started.wait());
	go.raise();

	EXPECT_EQ(tvtimer_delete(service, timer.fd), 0);

	EXPECT_EQ(finished, started.times());
}

TEST_F(timer_service, leaves_a_descriptor_alone_that_took_the_number_of_a_deleted_timer)
{
	int ends[2];
	ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
	ASSERT_EQ(write(ends[1], "data", 4), 4);
	fail_nth waits("epoll_wait", 0);

	// A stranger under watch stands for the reused number: its event has no entry.
	struct epoll_event event = {};
	event.events = EPOLLIN | EPOLLET;
	event.data.fd = ends[0];
	tvtimer ticking = timer_of(&runs, short_period, -1);
	ASSERT_EQ(tvtimer_add(service, &ticking), 0);
	ASSERT_EQ(epoll_ctl(epoll_of_the_service(), EPOLL_CTL_ADD, ends[0], &event), 0);
	EXPECT_TRUE(waits.wait_for_calls(waits.calls() + 3));

	char data[8];
	EXPECT_EQ(read(ends[0], data, sizeof data), 4);
	close(ends[0]);
	close(ends[1]);
}

TEST_F(timer_service, runs_callbacks_one_after_another)
{
	int inside = 0; // by both callbacks; a race is a finding of the thread sanitizer
	event all;
	std::function<void()> work = [&] {
		EXPECT_EQ(inside++, 0);
		--inside;
		all.raise();
	};
	tvtimer one = {"one", 0, short_period, &work, -1, call};
	tvtimer two = {"two", 0, short_period, &work, -1, call};
	ASSERT_EQ(tvtimer_add(service, &one), 0);
	ASSERT_EQ(tvtimer_add(service, &two), 0);

	EXPECT_TRUE(all.wait(20));
}

TEST_F(timer_service, keeps_waiting_after_a_failed_wait)
{
	fail_nth failure("epoll_wait", 1, EINTR);
	tvtimer timer = timer_of(&runs, short_period, -1);
	ASSERT_EQ(tvtimer_add(service, &timer), 0);

	// The first wait began before the failure was armed: the timer ends it, the next one fails.
	EXPECT_TRUE(failure.wait_for_calls(2));
	EXPECT_TRUE(runs.wait(runs.times() + 2));
	EXPECT_TRUE(output->has_line("ERR", "tvtimer", "epoll_wait failed: Interrupted system call"));
}

TEST_F(timer_service, goes_to_the_next_event_when_the_lock_fails)
{
	tvtimer one = {"one", 0, short_period, nullptr, -1, nullptr};
	tvtimer two = {"two", 0, short_period, nullptr, -1, nullptr};
	ASSERT_EQ(tvtimer_add(service, &one), 0);
	ASSERT_EQ(tvtimer_add(service, &two), 0);
	{
		fail_nth failure("pthread_mutex_lock", 1, EINVAL);
		EXPECT_TRUE(failure.wait_for_calls(2)) << "the service thread's own: nobody else takes a lock here";
	}
	EXPECT_TRUE(output->has_line("ERR", "tvtimer", "Thread Lock failed: Invalid argument"));
}

TEST_F(timer_service, reports_each_failure_of_add_and_leaves_nothing_behind)
{
	const struct {
		const char *function;
		unsigned nth;
		texts errors;
	} rows[] = {
			{"calloc", 1, {"Memory Allocation failed"}},
			{"timerfd_create", 1, {"timer_create error Timerfd=-1"}},
			{"fcntl", 1, {"errors:SetNonBlock fcntl", "Setting non block failed"}},
			{"fcntl", 2, {"errors:SetNonBlock fcntl", "Setting non block failed"}},
			{"pthread_mutex_lock", 1, {"Thread Lock failed: Invalid argument"}},
			{"timerfd_settime", 1, {"errors timerfd_settime"}},
			{"epoll_ctl", 1, {"errors epoll_ctl add_timer"}},
			{"pthread_mutex_unlock", 2, {"thread unlock failed: Invalid argument"}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(testing::Message() << row.function << " " << row.nth);
		output->clear();
		size_t descriptors = open_descriptors();
		tvtimer timer = timer_of(&runs, long_period, -1);
		{
			fail_nth failure(row.function, row.nth, EINVAL, fail_nth::this_thread);
			EXPECT_EQ(tvtimer_add(service, &timer), -1);
			EXPECT_TRUE(failure.fired());
		}
		EXPECT_EQ(output->messages("ERR"), row.errors);
		EXPECT_EQ(timer.fd, -1);
		EXPECT_EQ(open_descriptors(), descriptors);
	}
	EXPECT_EQ(runs.times(), 1u) << "only the row of the unlock got as far as its run, which unlocks once itself";
	// Nothing was entered: the end finds no timer to delete.
	output->clear();
	tvtimer_deinit(service);
	EXPECT_EQ(output->messages("DBG"), (texts{}));
	service = tvtimer_init(1);
}

TEST_F(timer_service, goes_on_to_the_watch_after_a_failed_arming)
{
	tvtimer timer = timer_of(&runs, long_period, -1);
	fail_nth failure("timerfd_settime", 1);
	fail_nth watching("epoll_ctl", 1, ENOSPC, fail_nth::this_thread);

	EXPECT_EQ(tvtimer_add(service, &timer), -1);

	EXPECT_EQ(output->messages("ERR"), (texts{"errors timerfd_settime", "errors epoll_ctl add_timer"}));
	EXPECT_EQ(runs.times(), 0u);
}

TEST_F(timer_service, does_not_run_a_timer_that_could_not_be_armed)
{
	tvtimer timer = timer_of(&runs, short_period, -1);
	fail_nth failure("timerfd_settime", 1);

	EXPECT_EQ(tvtimer_add(service, &timer), -1);

	EXPECT_TRUE(output->has_line("DBG", "tvtimer", "Timer added Successfully")) << "its watch was set up";
	EXPECT_EQ(runs.times(), 0u);
}

TEST_F(timer_service, gives_the_error_number_of_the_lock_when_deleting)
{
	const struct {
		const char *function, *level, *line;
	} rows[] = {
			{"pthread_mutex_lock", "ERR", "Thread Lock failed: Invalid argument"},
			{"pthread_mutex_unlock", "DBG", "thread unlock failed: Invalid argument"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		output->clear();
		fail_nth failure(row.function, 1, EINVAL, fail_nth::this_thread);
		EXPECT_EQ(tvtimer_delete(service, 777), EINVAL);
		EXPECT_TRUE(output->has_line(row.level, "tvtimer", row.line));
	}
}

TEST_F(timer_service, deletes_the_timers_in_the_order_of_their_adding_at_its_end)
{
	tvtimer first = timer_of(&runs, long_period, -1, "first");
	tvtimer second = timer_of(&runs, long_period, -1, "second");
	ASSERT_EQ(tvtimer_add(service, &first), 0);
	ASSERT_EQ(tvtimer_add(service, &second), 0);
	output->clear();

	tvtimer_deinit(service);

	EXPECT_EQ(output->messages(),
			(texts{with_fd("deleting timerfd=", first.fd), with_fd("deleting timer \"first\" fd=", first.fd),
					"Timer deleted Successfully", with_fd("deleting timerfd=", second.fd),
					with_fd("deleting timer \"second\" fd=", second.fd), "Timer deleted Successfully",
					"thread terminated successfully", "Timer de init success"}));
	EXPECT_TRUE(output->has_line("INFO", "tvtimer", "thread terminated successfully"));
	EXPECT_TRUE(output->has_line("ERR", "tvtimer", "Timer de init success"));
	service = tvtimer_init(1);
}

TEST_F(timer_service, frees_its_timers_at_its_end_when_the_lock_fails)
{
	tvtimer timer = timer_of(&runs, long_period, -1);
	ASSERT_EQ(tvtimer_add(service, &timer), 0);
	{
		fail_nth failure("pthread_mutex_lock", 1, EINVAL, fail_nth::this_thread);
		tvtimer_deinit(service);
	}
	EXPECT_TRUE(output->has_line("ERR", "tvtimer", "Thread Lock failed: Invalid argument"));
	service = tvtimer_init(1);
}
