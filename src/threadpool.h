// A fixed number of worker threads fed from one queue, first in, first out. Its messages go to standard error.
#pragma once

struct threadpool;

// Starts the pool and stores it in *out; a negative count is taken as 1, and with 0 no work is ever run. 0, or -1.
int threadpool_init(threadpool **out, int count);

// Queues function(argument) for a worker; the argument stays the function's. From any thread. 0, or -1 when
// the pool is being destroyed or memory is short.
int threadpool_add_work(threadpool *pool, void (*function)(void *), void *argument);

// Refuses new work, drops what is queued, waits for the work under way and frees the pool. 0.
int threadpool_destroy(threadpool *pool);
