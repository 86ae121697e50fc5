#include "pause_seam.h"

#include <pthread.h>

#include <cerrno>
#include <ctime>
#include <mutex>

namespace
{

std::mutex seam_lock;
std::vector<int64_t> pauses;
std::function<void()> in_pause;

}

std::vector<int64_t> pause_seam::pauses_s()
{
	std::lock_guard guard(seam_lock);
	return pauses;
}

void pause_seam::reset(std::function<void()> during)
{
	std::lock_guard guard(seam_lock);
	pauses.clear();
	in_pause = std::move(during);
}

extern "C" int __wrap_pthread_cond_clockwait(
		pthread_cond_t *, pthread_mutex_t *mutex, clockid_t clock, const struct timespec *end);

int __wrap_pthread_cond_clockwait(pthread_cond_t *, pthread_mutex_t *mutex, clockid_t clock, const struct timespec *end)
{
	struct timespec now = {};
	clock_gettime(clock, &now);
	double left = static_cast<double>(end->tv_sec - now.tv_sec) + static_cast<double>(end->tv_nsec - now.tv_nsec) / 1e9;

	std::function<void()> during;
	{
		std::lock_guard guard(seam_lock);
		pauses.push_back(static_cast<int64_t>(left + 0.5));
		during = in_pause;
	}
	if (during) {
		pthread_mutex_unlock(mutex);
		during();
		pthread_mutex_lock(mutex);
	}
	return ETIMEDOUT;
}
