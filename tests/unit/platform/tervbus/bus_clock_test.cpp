// The library's clock goes on while the machine is suspended. clock_gettime is the test's.
#include "bus_clock.h"

#include <gtest/gtest.h>

#include <ctime>

namespace
{

constexpr int64_t suspended_s = 3600;

int64_t milliseconds_of(const timespec &time)
{
	return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
}

} // namespace

extern "C" {
int __real_clock_gettime(clockid_t clock, timespec *time);
int __wrap_clock_gettime(clockid_t clock, timespec *time);

// A machine that has been suspended for an hour: one of its clocks shows it.
int __wrap_clock_gettime(clockid_t clock, timespec *time)
{
	if (clock != CLOCK_BOOTTIME)
		return __real_clock_gettime(clock, time);
	const int result = __real_clock_gettime(CLOCK_MONOTONIC, time);
	time->tv_sec += suspended_s;
	return result;
}
}

TEST(bus_clock, counts_the_time_of_a_suspend)
{
	timespec before{};
	ASSERT_EQ(__real_clock_gettime(CLOCK_MONOTONIC, &before), 0);
	const int64_t now_ms = bus_now_ms();
	timespec after{};
	ASSERT_EQ(__real_clock_gettime(CLOCK_MONOTONIC, &after), 0);

	EXPECT_GE(now_ms, milliseconds_of(before) + suspended_s * 1000);
	EXPECT_LE(now_ms, milliseconds_of(after) + suspended_s * 1000);
}
