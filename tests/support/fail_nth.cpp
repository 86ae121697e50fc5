// One slot of atomics per function, constant-initialised: the wrapped functions are called before main and on every
// thread. A guard owns its slot while it lives.
#include "support/fail_nth.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <json-c/json.h>
#include <mosquitto.h>
#include <openssl/ssl.h>

namespace
{

enum slot_index {
#define WRAP(kind, result, name, parameters, arguments) slot_##name,
#include "support/wrapped_functions.def"
#undef WRAP
	slot_fcntl,
	slot_ioctl,
	slot_open,
	slot_pthread_mutex_unlock,
	slot_count
};

struct slot_state {
	const char *name;
	std::atomic<bool> armed;
	std::atomic<fail_nth::threads> whose;
	std::atomic<pthread_t> thread;
	std::atomic<unsigned> nth;
	std::atomic<unsigned> calls;
	std::atomic<int> error;
};

constinit slot_state slots[slot_count] = {
#define WRAP(kind, result, name, parameters, arguments) {#name, {}, {}, {}, {}, {}, {}},
#include "support/wrapped_functions.def"
#undef WRAP
		{"fcntl", {}, {}, {}, {}, {}, {}},
		{"ioctl", {}, {}, {}, {}, {}, {}},
		{"open", {}, {}, {}, {}, {}, {}},
		{"pthread_mutex_unlock", {}, {}, {}, {}, {}, {}},
};

// The error number with which this call is to fail, or 0.
int failure_of(slot_index index)
{
	slot_state &slot = slots[index];
	if (!slot.armed)
		return 0;
	const bool own = pthread_equal(slot.thread, pthread_self()) != 0;
	if ((slot.whose == fail_nth::this_thread && !own) || (slot.whose == fail_nth::other_threads && own))
		return 0;
	return ++slot.calls == slot.nth ? slot.error.load() : 0;
}

template <typename T>
T null_pointer(int error)
{
	errno = error;
	return nullptr;
}

template <typename T>
T minus_one(int error)
{
	errno = error;
	return -1;
}

template <typename T>
T error_number(int error)
{
	return error;
}

}

// Weak: a test may have a seam of its own in the place of one of them.
extern "C" {
#define WRAP(kind, result, name, parameters, arguments) \
	result __real_##name parameters; \
	result __wrap_##name parameters __attribute__((weak)); \
	result __wrap_##name parameters \
	{ \
		if (int error = failure_of(slot_##name)) \
			return kind<result>(error); \
		return __real_##name arguments; \
	}
#include "support/wrapped_functions.def"
#undef WRAP

// Each takes one optional argument of the size of a pointer at most.
#define WRAP_VARIADIC(name, first, second) \
	int __real_##name(first, second, ...); \
	int __wrap_##name(first, second, ...);

WRAP_VARIADIC(fcntl, int, int)
WRAP_VARIADIC(ioctl, int, unsigned long)
WRAP_VARIADIC(open, const char *, int)

int __wrap_fcntl(int descriptor, int command, ...)
{
	va_list arguments;
	va_start(arguments, command);
	void *argument = va_arg(arguments, void *);
	va_end(arguments);
	if (int error = failure_of(slot_fcntl))
		return minus_one<int>(error);
	return __real_fcntl(descriptor, command, argument);
}

int __wrap_ioctl(int descriptor, unsigned long request, ...)
{
	va_list arguments;
	va_start(arguments, request);
	void *argument = va_arg(arguments, void *);
	va_end(arguments);
	if (int error = failure_of(slot_ioctl))
		return minus_one<int>(error);
	return __real_ioctl(descriptor, request, argument);
}

int __wrap_open(const char *path, int flags, ...)
{
	va_list arguments;
	va_start(arguments, flags);
	mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
	va_end(arguments);
	if (int error = failure_of(slot_open))
		return minus_one<int>(error);
	return __real_open(path, flags, mode);
}

int __real_pthread_mutex_unlock(pthread_mutex_t *lock);
int __wrap_pthread_mutex_unlock(pthread_mutex_t *lock);

// Unlocks all the same, so that a test can go on after the failure.
int __wrap_pthread_mutex_unlock(pthread_mutex_t *lock)
{
	int error = failure_of(slot_pthread_mutex_unlock);
	int result = __real_pthread_mutex_unlock(lock);
	return error != 0 ? error : result;
}
}

fail_nth::fail_nth(const char *function, unsigned nth, int error, threads whose) : slot(0)
{
	while (slot < slot_count && strcmp(slots[slot].name, function) != 0)
		++slot;
	if (slot == slot_count || slots[slot].armed) {
		fprintf(stderr, "fail_nth: %s is %s\n", function, slot == slot_count ? "not wrapped" : "armed already");
		abort();
	}
	slots[slot].whose = whose;
	slots[slot].thread = pthread_self();
	slots[slot].nth = nth;
	slots[slot].calls = 0;
	slots[slot].error = error;
	slots[slot].armed = true;
}

fail_nth::~fail_nth()
{
	slots[slot].armed = false;
}

bool fail_nth::fired() const
{
	return slots[slot].nth != 0 && slots[slot].calls >= slots[slot].nth;
}

unsigned fail_nth::calls() const
{
	return slots[slot].calls;
}

bool fail_nth::wait_for_calls(unsigned count) const
{
	auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
	while (calls() < count && std::chrono::steady_clock::now() < end)
		std::this_thread::yield();
	return calls() >= count;
}

std::vector<std::string> fail_nth::functions()
{
	std::vector<std::string> names;
	for (const slot_state &slot : slots)
		names.push_back(slot.name);
	return names;
}
