// How it works: jobs stand in a circular list (the rear's next is the front) under the pool's lock. A binary
// semaphore tells the workers that there is something to look at; posts do not count, so a worker that leaves jobs
// behind posts again, and so does a worker that ends: one wake-up at destruction reaches all of them. The two locks
// are taken together only in the order pool, semaphore.
//
// A thread that could not be created counts as created, kept as it is: the pool then takes work and runs none. Only
// threads that did start are joined.
#include "threadpool.h"

#include <pthread.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <type_traits>

#include "held_lock.h"

namespace
{

struct queue_sem {
	pthread_mutex_t mutex;
	pthread_cond_t condition;
	int32_t value; // 0 or 1, guarded by mutex
};

struct job {
	void (*function)(void *);
	void *argument; // the function's
	job *next;
};

struct jobqueue {
	job *front; // guarded, with the links and the rear, by the pool's lock
	job *rear;
	queue_sem *has_jobs; // owned
};

struct thread_slot {
	bool started;
	pthread_t thread;
};

}

struct threadpool {
	int32_t thread_count;
	thread_slot *threads; // owned
	jobqueue *queue;      // owned
	pthread_mutex_t lock;
	int32_t keep_alive; // atomic: 1 while work is accepted; cleared before the queue is flushed
};

static_assert(std::is_trivially_copyable_v<threadpool> && std::is_trivially_copyable_v<jobqueue>);

namespace
{

int queue_sem_init(queue_sem *sem)
{
	if (pthread_mutex_init(&sem->mutex, nullptr) != 0)
		return -1;
	if (pthread_cond_init(&sem->condition, nullptr) != 0) {
		(void)pthread_mutex_destroy(&sem->mutex); // nobody holds it
		return -1;
	}
	sem->value = 0;
	return 0;
}

void queue_sem_post(queue_sem *sem)
{
	held_lock lock = hold(&sem->mutex);
	sem->value = 1;
	(void)pthread_cond_signal(&sem->condition); // cannot fail
}

void queue_sem_wait(queue_sem *sem)
{
	held_lock lock = hold(&sem->mutex);
	while (sem->value != 1)
		(void)pthread_cond_wait(&sem->condition, &sem->mutex); // cannot fail: the mutex is held
	sem->value = 0;
}

jobqueue *jobqueue_init()
{
	scoped<jobqueue, free> queue(static_cast<jobqueue *>(calloc(1, sizeof(jobqueue))));
	if (!queue) {
		fprintf(stderr, "%s:%d: Can't Allocate memory\n", "jobqueue_init", 84);
		return nullptr;
	}
	scoped<queue_sem, free> sem(static_cast<queue_sem *>(calloc(1, sizeof(queue_sem))));
	if (!sem) {
		fprintf(stderr, "%s:%d: queue semaphore failed to assign memory\n", "jobqueue_init", 91);
		return nullptr;
	}
	if (queue_sem_init(sem.get()) < 0) {
		fprintf(stderr, "%s:%d: queue semaphore failed to initialize\n", "jobqueue_init", 97);
		return nullptr;
	}
	queue->has_jobs = sem.release();
	return queue.release();
}

void jobqueue_free(jobqueue *queue)
{
	if (queue == nullptr)
		return;
	(void)pthread_cond_destroy(&queue->has_jobs->condition); // nobody waits any more
	(void)pthread_mutex_destroy(&queue->has_jobs->mutex);
	free(queue->has_jobs);
	free(queue);
}

bool accepts_work(const threadpool *pool)
{
	return __atomic_load_n(&pool->keep_alive, __ATOMIC_ACQUIRE) == 1;
}

int refuse()
{
	puts("can not add to pool as pool got request to de initialize");
	return -1;
}

// Looks at the flag again under the lock: nothing is queued after the flush of a pool that is being destroyed.
int job_push(threadpool *pool, job *work)
{
	if (work == nullptr) {
		fprintf(stderr, "%s:%d: Invalid Job assigned\n", "job_push", 135);
		return -1;
	}
	held_lock lock = hold(&pool->lock);
	if (!accepts_work(pool))
		return refuse();
	jobqueue *queue = pool->queue;
	if (queue->front == nullptr)
		queue->front = work;
	else
		queue->rear->next = work;
	queue->rear = work;
	queue->rear->next = queue->front;
	queue_sem_post(queue->has_jobs);
	return 0;
}

// The oldest job, the caller's then, or NULL.
job *job_pull(threadpool *pool)
{
	held_lock lock = hold(&pool->lock);
	jobqueue *queue = pool->queue;
	job *work = queue->front;
	if (work == nullptr) {
		fprintf(stderr, "%s:%d: No Job found\n", "job_pull", 112);
		return nullptr;
	}
	if (work == queue->rear) {
		queue->front = nullptr;
		queue->rear = nullptr;
	} else {
		queue->front = work->next;
		queue->rear->next = queue->front;
		queue_sem_post(queue->has_jobs);
	}
	return work;
}

void job_flush(threadpool *pool)
{
	held_lock lock = hold(&pool->lock);
	jobqueue *queue = pool->queue;
	if (queue->front == nullptr) {
		fprintf(stderr, "%s:%d: No Job found\n", "job_flush", 155);
		return;
	}
	queue->rear->next = nullptr; // the list ends after the rear
	while (queue->front != nullptr) {
		job *work = queue->front;
		queue->front = work->next;
		free(work);
	}
	queue->rear = nullptr;
}

void *worker_loop(void *argument)
{
	threadpool *pool = static_cast<threadpool *>(argument);
	while (accepts_work(pool)) {
		queue_sem_wait(pool->queue->has_jobs);
		job *work = job_pull(pool);
		if (work == nullptr)
			continue;
		work->function(work->argument);
		free(work);
	}
	queue_sem_post(pool->queue->has_jobs); // for the next worker
	return nullptr;
}

int thread_init(threadpool *pool, int32_t index)
{
	thread_slot *slot = &pool->threads[index];
	int result = pthread_create(&slot->thread, nullptr, worker_loop, pool);
	if (result < 0) { // an error number is positive: it passes as success, see above
		fprintf(stderr, "%s:%d Can't create thread\n", "thread_init", 195);
		return -1;
	}
	slot->started = result == 0;
	return 0;
}

void join_threads(threadpool *pool)
{
	for (int32_t index = 0; index < pool->thread_count; ++index)
		if (pool->threads[index].started)
			(void)pthread_join(pool->threads[index].thread, nullptr); // joined once, never by itself
}

// Takes whatever there is; the queue and its semaphore go after the last thread.
void threadpool_free(threadpool *pool)
{
	if (pool->queue != nullptr) {
		queue_sem_post(pool->queue->has_jobs);
		join_threads(pool);
		(void)pthread_mutex_destroy(&pool->lock); // no thread is left to hold it
	}
	jobqueue_free(pool->queue);
	free(pool->threads);
	free(pool);
}

// Ends the threads that did start. The negative result of thread_init has been logged.
void abandon(threadpool *pool)
{
	__atomic_store_n(&pool->keep_alive, 0, __ATOMIC_RELEASE);
	threadpool_free(pool);
}

using unfinished_pool = scoped<threadpool, abandon>;

int start_threads(threadpool *pool)
{
	for (int32_t index = 0; index < pool->thread_count; ++index) {
		if (thread_init(pool, index) < 0) {
			fprintf(stderr, "%s:%d: can't create thread at %d index\n", "threadpool_init", 244, index);
			return -1;
		}
		fprintf(stderr, "%s:%d: created thread at %d index\n", "threadpool_init", 247, index);
	}
	return 0;
}

}

int threadpool_init(threadpool **out, int count)
{
	unfinished_pool pool(static_cast<threadpool *>(calloc(1, sizeof(threadpool))));
	if (!pool) {
		fprintf(stderr, "%s:%d: Can't Allocate memory\n", "threadpool_init", 221);
		return -1;
	}
	pool->thread_count = count < 0 ? 1 : count;
	// A pool without threads still has its array: calloc of nothing may be NULL.
	size_t slots = pool->thread_count > 0 ? static_cast<size_t>(pool->thread_count) : 1;
	pool->threads = static_cast<thread_slot *>(calloc(slots, sizeof(thread_slot)));
	if (pool->threads == nullptr) {
		fprintf(stderr, "%s:%d: Can't Allocate memory to thred\n", "threadpool_init", 228);
		return -1;
	}
	pool->queue = jobqueue_init();
	if (pool->queue == nullptr) {
		fprintf(stderr, "%s:%d: Job queue Initialization failed\n", "threadpool_init", 235);
		return -1;
	}
	pool->keep_alive = 1;
	(void)pthread_mutex_init(&pool->lock, nullptr); // cannot fail with default attributes
	if (start_threads(pool.get()) < 0)
		return -1;
	*out = pool.release();
	return 0;
}

int threadpool_add_work(threadpool *pool, void (*function)(void *), void *argument)
{
	if (!accepts_work(pool))
		return refuse();
	scoped<job, free> work(static_cast<job *>(calloc(1, sizeof(job))));
	if (work)
		*work = {function, argument, nullptr};
	if (job_push(pool, work.get()) < 0)
		return -1;
	(void)work.release(); // the queue's now
	return 0;
}

int threadpool_destroy(threadpool *pool)
{
	if (pool == nullptr)
		return 0;
	__atomic_store_n(&pool->keep_alive, 0, __ATOMIC_RELEASE);
	job_flush(pool);
	threadpool_free(pool);
	return 0;
}
