// What the tests of the timer service share: timers that count their runs, and a look at the open descriptors.
#pragma once

#include <fcntl.h>

#include <string>
#include <vector>

#include "support/event.h"
#include "tvtimer.h"

using texts = std::vector<std::string>;

inline constexpr double long_period = 3600;
inline constexpr double short_period = 0.002;

inline int raise_event(void *argument)
{
	static_cast<event *>(argument)->raise();
	return -1; // ignored
}

inline tvtimer timer_of(event *runs, double period, int32_t count, const char *name = "a timer")
{
	return {name, 0, period, runs, count, raise_event};
}

inline size_t open_descriptors()
{
	size_t count = 0;
	for (int fd = 0; fd < 1024; ++fd)
		count += fcntl(fd, F_GETFD) >= 0;
	return count;
}
