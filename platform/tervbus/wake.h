// What ends the bus thread's wait for its sockets: an eventfd, shared with whoever may outlive that thread.
#pragma once

struct wake_event {
	int fd = -1;
	int holders = 0; // atomic
};

// With one holder; NULL when the system has no memory or descriptor to give.
wake_event *wake_event_new();

// Any thread.
wake_event *wake_event_hold(wake_event *event);

// The last holder's release frees it. NULL is accepted. Any thread.
void wake_event_release(wake_event *event);

// Any thread.
void wake_event_set(const wake_event *event);

void wake_event_clear(const wake_event *event);
