#include "bus_clock.h"

#include <ctime>

int64_t bus_now_ms()
{
	timespec now{};
	(void)clock_gettime(CLOCK_BOOTTIME, &now); // every kernel since 2.6.39 has it
	return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}
