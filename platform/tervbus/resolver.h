// Name resolution without waiting: a helper thread asks the system, the bus thread looks in now and then. The helper
// cannot be interrupted, so it shares the request and is left alone when nobody wants the answer any more.
#pragma once

#include "broker_url.h"
#include "wake.h"

#include <pthread.h>

inline constexpr size_t resolved_max = 16; // addresses of one name that are tried; more are left out

// An IPv4 or IPv6 address as text, with the interface of a link-local one.
struct numeric_address {
	char text[64] = "";
};

struct resolve_answer {
	numeric_address addresses[resolved_max];
	size_t count = 0;       // 0 when the name does not resolve
	const char *error = ""; // then: why; a constant text
};

struct resolve_request {
	int holders = 0; // atomic
	char host[host_max + 1] = "";
	wake_event *event = nullptr;                      // held
	pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER; // guards what follows
	bool done = false;
	resolve_answer answer;
};

// Starts to resolve; a numeric host is its own answer at once. The event is set when the answer is there. NULL when
// memory is short or no thread can be started.
resolve_request *resolve_start(const char *host, wake_event *event);

// Is the answer there? If so it is copied. The bus thread.
bool resolve_finished(resolve_request *request, resolve_answer *answer);

// Gives the request up, finished or not. NULL is accepted.
void resolve_release(resolve_request *request);
