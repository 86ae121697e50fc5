// Named callbacks that run periodically on the service's one thread, with the service's lock held.
#pragma once

#include <cstdint>

struct tvtimer_service;

// A timer as its owner describes it; the service keeps a copy of its own.
struct tvtimer {
	const char *name; // borrowed until the timer is deleted
	int32_t fd;       // set by tvtimer_add: the timer's descriptor, the key for tvtimer_delete
	double period;    // seconds
	void *argument;
	int32_t count;                   // runs left: negative = without end, 0 = never run
	int (*callback)(void *argument); // must not add or delete timers of the same service; its result is ignored
};

// Starts the service; the capacity is the size hint of its epoll instance. NULL on failure.
tvtimer_service *tvtimer_init(int capacity);

// Adds a timer and runs it once, on the calling thread, before it returns. 0, or -1.
int tvtimer_add(tvtimer_service *service, tvtimer *timer);

// Removes a timer; when it returns, the callback is not running and will not run again. An unknown descriptor
// is no failure. 0, or the lock's error number.
int tvtimer_delete(tvtimer_service *service, int fd);

// Removes every timer, ends the thread (within a second) and frees the service. NULL is only logged.
void tvtimer_deinit(tvtimer_service *service);
