// How it works: a timer is a timerfd watched by one epoll instance and found by its descriptor in a hash table. One
// thread waits on epoll and runs the callbacks of what has expired. The service's lock guards the table and every run
// of a callback, the first one on the adding thread included, so a deleted timer's callback is over when
// tvtimer_delete returns. The lock outlives the thread.
#include "tvtimer.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include <uthash.h>

#include "logger.h"
#include "scoped.h"

namespace
{

constexpr const char module_name[] = "tvtimer";
constexpr int events_at_once = 128;
constexpr int wait_ms = 1000;           // the longest time until the thread looks at the running flag
constexpr double longest_period = 9e18; // seconds; what a time_t can hold

struct tvtimer_entry {
	tvtimer timer; // the service's copy; its count is the one that is decremented
	UT_hash_handle hh;
};

}

struct tvtimer_service {
	int32_t running; // atomic; cleared under the lock
	int epoll;       // closed by the thread when it ends, -1 then
	int wake;        // an eventfd that ends the wait at once, or -1: the thread then looks within wait_ms
	bool started;    // a thread that could not be created counts as created, kept as it is, but is not joined
	pthread_t thread;
	pthread_mutex_t lock;
	tvtimer_entry *timers; // the table by timer.fd; guarded by lock
};

static_assert(std::is_trivially_copyable_v<tvtimer_service>);

namespace
{

bool is_running(const tvtimer_service *service)
{
	return __atomic_load_n(&service->running, __ATOMIC_ACQUIRE) == 1;
}

void close_descriptor(int *descriptor)
{
	if (*descriptor >= 0)
		(void)close(*descriptor); // nothing was written to it
	*descriptor = -1;
}

int SetNonBlock(int fd)
{
	int flags = fcntl(fd, F_GETFL);
	if (flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) >= 0)
		return 0;
	LOG_AT(LOG_ERR, module_name, "errors:SetNonBlock fcntl\n");
	return -1;
}

int take_lock(tvtimer_service *service)
{
	int error = pthread_mutex_lock(&service->lock);
	if (error != 0)
		LOG_AT(LOG_ERR, module_name, "Thread Lock failed: %s\n", strerror(error));
	return error;
}

struct epoll_event event_of(int fd)
{
	struct epoll_event event = {};
	event.events = EPOLLIN | EPOLLET;
	event.data.fd = fd;
	return event;
}

void entry_free(tvtimer_entry *entry)
{
	if (entry == nullptr)
		return;
	close_descriptor(&entry->timer.fd); // epoll forgets a closed descriptor
	free(entry);
}

// The lock is held in the functions from here to expire().

tvtimer_entry *find_entry(tvtimer_service *service, int fd)
{
	tvtimer_entry *entry = nullptr;
	HASH_FIND_INT(service->timers, &fd, entry);
	return entry;
}

void take_out(tvtimer_service *service, tvtimer_entry *entry)
{
	struct epoll_event event = event_of(entry->timer.fd);
	(void)epoll_ctl(service->epoll, EPOLL_CTL_DEL, entry->timer.fd, &event); // its close does it as well
	HASH_DEL(service->timers, entry);
}

void delete_entry(tvtimer_service *service, int fd)
{
	tvtimer_entry *entry = find_entry(service, fd);
	if (entry == nullptr) {
		LOG_AT(LOG_DBG, module_name, "No timer found\n");
		return;
	}
	LOG_AT(LOG_DBG, module_name, "deleting timer \"%s\" fd=%d\n", entry->timer.name, fd);
	take_out(service, entry);
	entry_free(entry);
	LOG_AT(LOG_DBG, module_name, "Timer deleted Successfully\n");
}

void drop_all(tvtimer_service *service)
{
	while (service->timers != nullptr) {
		tvtimer_entry *entry = service->timers;
		// The analyzer does not follow the table's own links. NOLINTNEXTLINE(clang-analyzer-unix.Malloc)
		take_out(service, entry);
		entry_free(entry);
	}
}

void tvtimer_process(tvtimer_entry *entry)
{
	if (entry->timer.callback == nullptr || entry->timer.count == 0)
		return;
	LOG_AT(LOG_DBG, module_name, "process timer \"%s\"\n", entry->timer.name);
	(void)entry->timer.callback(entry->timer.argument); // its result has no meaning here
	if (entry->timer.count > 0)
		entry->timer.count -= 1;
}

// Reads until nothing is left. False when there was nothing: the event is an earlier timer's with this descriptor.
bool drain(int fd)
{
	char data[128];
	bool expired = false;
	while (read(fd, data, sizeof data) > 0)
		expired = true;
	return expired;
}

// A descriptor without an entry may be anybody's by now, and is not read.
void expire(tvtimer_service *service, int fd)
{
	tvtimer_entry *entry = find_entry(service, fd);
	if (entry != nullptr && drain(fd) && is_running(service))
		tvtimer_process(entry);
}

// False when the service is to stop.
bool serve_event(tvtimer_service *service, int fd)
{
	if (take_lock(service) != 0)
		return true;
	expire(service, fd);
	bool running = is_running(service);
	(void)pthread_mutex_unlock(&service->lock); // taken above
	return running;
}

void serve(tvtimer_service *service)
{
	struct epoll_event events[events_at_once];
	while (is_running(service)) {
		int count = epoll_wait(service->epoll, events, events_at_once, wait_ms);
		if (count < 0)
			LOG_AT(LOG_ERR, module_name, "epoll_wait failed: %s\n", strerror(errno));
		for (int index = 0; index < count; ++index)
			if (!serve_event(service, events[index].data.fd))
				break;
	}
}

void *service_thread(void *argument)
{
	tvtimer_service *service = static_cast<tvtimer_service *>(argument);
	serve(service);

	// Whatever tvtimer_deinit could not delete.
	(void)pthread_mutex_lock(&service->lock); // held by nobody for long; nobody else comes any more
	drop_all(service);
	close_descriptor(&service->epoll);
	(void)pthread_mutex_unlock(&service->lock); // taken above
	LOG_AT(LOG_INFO, module_name, "thread terminated successfully\n");
	return nullptr;
}

// Takes a service without a thread.
void service_free(tvtimer_service *service)
{
	drop_all(service);
	(void)pthread_mutex_destroy(&service->lock); // held by nobody
	close_descriptor(&service->wake);
	close_descriptor(&service->epoll);
	free(service);
}

// Without it the service works, and only takes longer to end.
int open_wake(int epoll)
{
	int wake = eventfd(0, EFD_NONBLOCK);
	if (wake < 0)
		return -1;
	struct epoll_event event = event_of(wake);
	if (epoll_ctl(epoll, EPOLL_CTL_ADD, wake, &event) != 0)
		close_descriptor(&wake);
	return wake;
}

void wake_thread(const tvtimer_service *service)
{
	uint64_t one = 1;
	if (service->wake >= 0)
		(void)!write(service->wake, &one, sizeof one); // if it fails, the thread looks within wait_ms
}

struct itimerspec interval_of(double period)
{
	struct itimerspec interval = {};
	if (!(std::fabs(period) < longest_period)) {
		interval.it_interval.tv_nsec = -1; // no time at all: it cannot be armed
	} else {
		interval.it_interval.tv_sec = static_cast<time_t>(period);
		double fraction = period - static_cast<double>(interval.it_interval.tv_sec);
		interval.it_interval.tv_nsec = static_cast<long>(fraction * 1e9);
	}
	interval.it_value = interval.it_interval;
	return interval;
}

int create_descriptor()
{
	int fd = timerfd_create(CLOCK_REALTIME, 0);
	if (fd < 0) {
		LOG_AT(LOG_ERR, module_name, "timer_create error Timerfd=%d\n", fd);
		return -1;
	}
	if (SetNonBlock(fd) != 0) {
		LOG_AT(LOG_ERR, module_name, "Setting non block failed\n");
		close_descriptor(&fd);
	}
	return fd;
}

int arm(const tvtimer *timer)
{
	struct itimerspec interval = interval_of(timer->period);
	LOG_AT(LOG_INFO, module_name, "adding timer \"%s\" fd=%d period=%lld.%03ld Seconds\n", timer->name, timer->fd,
			static_cast<long long>(interval.it_interval.tv_sec),
			static_cast<long>(interval.it_interval.tv_nsec / 1'000'000));
	if (timer->count == 0 || timerfd_settime(timer->fd, 0, &interval, nullptr) == 0)
		return 0;
	LOG_AT(LOG_ERR, module_name, "errors timerfd_settime\n");
	return -1;
}

int watch(const tvtimer_service *service, int fd)
{
	struct epoll_event event = event_of(fd);
	if (epoll_ctl(service->epoll, EPOLL_CTL_ADD, fd, &event) != 0) {
		LOG_AT(LOG_ERR, module_name, "errors epoll_ctl add_timer\n");
		return -1;
	}
	LOG_AT(LOG_DBG, module_name, "Timer added Successfully\n");
	return 0;
}

// Arms the entry, enters it and runs it once; the lock is held. An entry that could not be armed is watched for
// nothing until it is freed, and never entered.
int start_entry(tvtimer_service *service, tvtimer_entry *entry)
{
	int armed = arm(&entry->timer);
	int watched = watch(service, entry->timer.fd);
	if (armed != 0 || watched != 0)
		return -1;
	HASH_ADD_INT(service->timers, timer.fd, entry);
	tvtimer_process(entry);
	return 0;
}

int start_thread(tvtimer_service *service)
{
	int result = pthread_create(&service->thread, nullptr, service_thread, service);
	if (result < 0) { // an error number is positive: it passes as success
		LOG_AT(LOG_ERR, module_name, "Spawning of thread failed\n");
		return -1;
	}
	service->started = result == 0;
	return 0;
}

// A zeroed service with its lock.
tvtimer_service *service_new()
{
	scoped<tvtimer_service, free> service(static_cast<tvtimer_service *>(calloc(1, sizeof(tvtimer_service))));
	if (!service) {
		LOG_AT(LOG_ERR, module_name, "Memory Allocation failed\n");
		return nullptr;
	}
	service->epoll = -1;
	service->wake = -1;
	if (pthread_mutex_init(&service->lock, nullptr) != 0) {
		LOG_AT(LOG_ERR, module_name, "pthread_mutex_init error\n");
		return nullptr;
	}
	return service.release();
}

}

tvtimer_service *tvtimer_init(int capacity)
{
	scoped<tvtimer_service, service_free> service(service_new());
	if (!service)
		return nullptr;
	service->running = 1;
	service->epoll = epoll_create(capacity);
	if (service->epoll < 0) {
		LOG_AT(LOG_ERR, module_name, "epoll_create failed\n");
		return nullptr;
	}
	service->wake = open_wake(service->epoll);
	if (start_thread(service.get()) != 0)
		return nullptr;
	return service.release();
}

int tvtimer_add(tvtimer_service *service, tvtimer *timer)
{
	timer->fd = -1;
	if (service == nullptr) {
		LOG_AT(LOG_ERR, module_name, "Timer not initialized\n");
		return -1;
	}
	scoped<tvtimer_entry, entry_free> entry(static_cast<tvtimer_entry *>(calloc(1, sizeof(tvtimer_entry))));
	if (!entry) {
		LOG_AT(LOG_ERR, module_name, "Memory Allocation failed\n");
		return -1;
	}
	entry->timer = *timer;
	entry->timer.fd = create_descriptor();
	if (entry->timer.fd < 0 || take_lock(service) != 0)
		return -1;

	timer->fd = entry->timer.fd; // the first run may look at it
	int result = start_entry(service, entry.get());
	int error = pthread_mutex_unlock(&service->lock);
	if (error != 0) { // then the lock is still held
		LOG_AT(LOG_ERR, module_name, "thread unlock failed: %s\n", strerror(error));
		if (result == 0)
			take_out(service, entry.get());
		result = -1;
	}
	if (result != 0) {
		timer->fd = -1;
		return -1;
	}
	(void)entry.release(); // the table's
	return 0;
}

int tvtimer_delete(tvtimer_service *service, int fd)
{
	if (service == nullptr) {
		LOG_AT(LOG_ERR, module_name, "Timer not initialized\n");
		return 0;
	}
	LOG_AT(LOG_DBG, module_name, "deleting timerfd=%d\n", fd);
	int error = take_lock(service);
	if (error != 0)
		return error;
	delete_entry(service, fd);
	error = pthread_mutex_unlock(&service->lock);
	if (error != 0)
		LOG_AT(LOG_DBG, module_name, "thread unlock failed: %s\n", strerror(error)); // at DBG, kept as it is
	return error;
}

void tvtimer_deinit(tvtimer_service *service)
{
	if (service == nullptr) {
		LOG_AT(LOG_ERR, module_name, "Timer not initialized\n");
		return;
	}
	// The flag goes and the timers go in one hold of the lock, so that the thread's own sweep comes after.
	bool held = take_lock(service) == 0;
	__atomic_store_n(&service->running, 0, __ATOMIC_RELEASE);
	while (held && service->timers != nullptr) {
		int fd = service->timers->timer.fd;
		LOG_AT(LOG_DBG, module_name, "deleting timerfd=%d\n", fd);
		delete_entry(service, fd);
	}
	if (held)
		(void)pthread_mutex_unlock(&service->lock); // taken above
	wake_thread(service);
	if (service->started)
		(void)pthread_join(service->thread, nullptr);        // joined once, never by itself
	LOG_AT(LOG_ERR, module_name, "Timer de init success\n"); // at ERR, kept as it is
	service_free(service);
}
