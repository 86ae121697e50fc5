#include "boot_clock.h"

#include <ctime>

int64_t boot_now_ms()
{
	timespec now = {};
	(void)clock_gettime(CLOCK_BOOTTIME, &now); // cannot fail with this clock
	return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}
