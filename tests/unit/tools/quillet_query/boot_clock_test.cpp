#include "boot_clock.h"

#include <gtest/gtest.h>

#include <ctime>

// What the machine has slept: the clocks that stand still meanwhile do not know of it.
static time_t slept_s = 0;

extern "C" int __real_clock_gettime(clockid_t clock, timespec *time);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec *time)
{
	const int result = __real_clock_gettime(clock, time);
	if (clock == CLOCK_BOOTTIME)
		time->tv_sec += slept_s;
	return result;
}

TEST(boot_clock, goes_on_while_the_machine_sleeps)
{
	slept_s = 0;
	const int64_t before = boot_now_ms();

	slept_s = 3600;
	const int64_t after = boot_now_ms();

	EXPECT_GE(after - before, 3600 * 1000);
	EXPECT_LT(after - before, 2 * 3600 * 1000);
}

TEST(boot_clock, counts_milliseconds)
{
	slept_s = 0;
	timespec now = {};
	ASSERT_EQ(__real_clock_gettime(CLOCK_BOOTTIME, &now), 0);
	const int64_t before = int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;

	const int64_t told = boot_now_ms();

	ASSERT_EQ(__real_clock_gettime(CLOCK_BOOTTIME, &now), 0);
	EXPECT_GE(told, before);
	EXPECT_LE(told, int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000);
}
