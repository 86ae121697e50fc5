// Guards: what a block has acquired and gives back at its end, however it ends.
#pragma once

#include <memory>
#include <pthread.h>

template <auto fn>
struct scoped_deleter {
	template <typename T>
	void operator()(T *pointer) const
	{
		fn(pointer);
	}
};

// A pointer that fn releases, unless release() handed it over.
template <typename T, auto fn>
using scoped = std::unique_ptr<T, scoped_deleter<fn>>;

// A mutex held until the end of the block. For mutexes with default attributes, on which locking and unlocking cannot
// fail as long as they exist and each block holds its mutex once.
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
