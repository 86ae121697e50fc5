#include "movra_fleet/diagnostic_execution/frame_reader.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "held_lock.h"
#include "movra_fleet/common/agent_ctx.h"
#include "scoped.h"
#include "udsutils.h"

namespace
{

constexpr size_t frame_size = 8;
constexpr size_t stack_size = 128 * 1024;

// The reader's lock is taken before the context's stop lock, and no other with it.
struct frame_reader {
	int descriptor;   // owned; constant
	int32_t holders;  // atomic: the thread and the caller
	int32_t received; // result of the receive; the thread's until done, as are the data
	uint8_t data[frame_size];
	pthread_mutex_t lock;
	agent_ctx *ctx; // borrowed, guarded by lock; NULL when nobody waits any more; only the caller changes it
	int32_t done;   // see agent_await
};

void release(frame_reader *reader)
{
	if (__atomic_sub_fetch(&reader->holders, 1, __ATOMIC_ACQ_REL) > 0)
		return;
	(void)close(reader->descriptor);            // nothing can be done about a descriptor that stays
	(void)pthread_mutex_destroy(&reader->lock); // nobody else knows it
	free(reader);
}

using reader_share = scoped<frame_reader, release>;

// With the caller's share only, and the descriptor; NULL when memory is short.
frame_reader *new_reader(agent_ctx *ctx, int descriptor)
{
	frame_reader *reader = static_cast<frame_reader *>(calloc(1, sizeof(frame_reader)));
	if (reader == nullptr)
		return nullptr;
	reader->descriptor = descriptor;
	reader->holders = 1;
	reader->ctx = ctx;
	(void)pthread_mutex_init(&reader->lock, nullptr); // with default attributes it cannot fail
	return reader;
}

void *receive_frame(void *argument)
{
	reader_share reader(static_cast<frame_reader *>(argument));
	uint8_t length = 0;
	reader->received = receive_can_frame(reader->descriptor, reader->data, &length);

	held_lock lock(hold(&reader->lock));
	if (reader->ctx != nullptr)
		agent_set_done(reader->ctx, &reader->done);
	return nullptr;
}

int start_thread(frame_reader *reader, pthread_t *thread)
{
	pthread_attr_t attributes;
	if (pthread_attr_init(&attributes) != 0)
		return -1;
	(void)pthread_attr_setstacksize(&attributes, stack_size); // else the thread has the default size
	reader->holders = 2;
	int error = pthread_create(thread, &attributes, receive_frame, reader);
	if (error != 0)
		reader->holders = 1;
	(void)pthread_attr_destroy(&attributes); // only a record on the stack
	return error == 0 ? 0 : -1;
}

void abandon(frame_reader *reader, pthread_t thread)
{
	(void)pthread_detach(thread); // a thread of ours, not joined
	held_lock lock(hold(&reader->lock));
	reader->ctx = nullptr;
}

}

int read_one_frame(agent_ctx *ctx, int descriptor, uint8_t (&data)[8])
{
	frame_reader *made = new_reader(ctx, descriptor);
	if (made == nullptr) {
		(void)close(descriptor); // as in release
		return -1;
	}
	reader_share reader(made);
	pthread_t thread;
	if (start_thread(reader.get(), &thread) != 0)
		return -1;
	if (!agent_await(ctx, &reader->done)) {
		abandon(reader.get(), thread);
		return -1;
	}
	(void)pthread_join(thread, nullptr); // a thread of ours, joined once
	if (reader->received < 0)
		return -1;
	memcpy(data, reader->data, sizeof data);
	return 0;
}
