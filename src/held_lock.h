// A mutex held until the end of the block. For mutexes with default attributes, on which locking and unlocking
// cannot fail as long as they exist and each block holds its mutex once.
#pragma once

#include <pthread.h>

#include "scoped.h"

inline void unlock_mutex(pthread_mutex_t *lock)
{
	(void)pthread_mutex_unlock(lock); // cannot fail, see above
}

using held_lock = scoped<pthread_mutex_t, unlock_mutex>;

[[nodiscard]] inline held_lock hold(pthread_mutex_t *lock)
{
	(void)pthread_mutex_lock(lock); // cannot fail, see above
	return held_lock(lock);
}
