#include "wake.h"

#include "record.h"

#include <sys/eventfd.h>
#include <unistd.h>

wake_event *wake_event_new()
{
	scoped<wake_event, wake_event_release> event(record_new<wake_event>());
	if (!event)
		return nullptr;
	event->holders = 1;
	event->fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
	return event->fd >= 0 ? event.release() : nullptr;
}

wake_event *wake_event_hold(wake_event *event)
{
	__atomic_fetch_add(&event->holders, 1, __ATOMIC_RELAXED);
	return event;
}

void wake_event_release(wake_event *event)
{
	if (event == nullptr || __atomic_fetch_sub(&event->holders, 1, __ATOMIC_ACQ_REL) > 1)
		return;
	if (event->fd >= 0)
		close(event->fd);
	free(event);
}

void wake_event_set(const wake_event *event)
{
	(void)eventfd_write(event->fd, 1); // fails only when it is set 2^64 - 1 times already
}

void wake_event_clear(const wake_event *event)
{
	eventfd_t count = 0;
	(void)eventfd_read(event->fd, &count); // fails only when it is not set
}
