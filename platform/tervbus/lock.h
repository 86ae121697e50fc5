// The guard of a pthread mutex: records that are made with calloc hold one, initialised by PTHREAD_MUTEX_INITIALIZER.
#pragma once

#include <pthread.h>

class lock_guard
{
public:
	explicit lock_guard(pthread_mutex_t *lock) : lock_(lock)
	{
		(void)pthread_mutex_lock(lock_); // fails only for a mutex that is none
	}
	~lock_guard()
	{
		(void)pthread_mutex_unlock(lock_); // held since the constructor
	}
	lock_guard(const lock_guard &) = delete;
	lock_guard &operator=(const lock_guard &) = delete;

private:
	pthread_mutex_t *const lock_;
};
