#include "movra_fleet/diagnostic_execution/dtc_receiver.h"

#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "held_lock.h"
#include "movra_fleet/common/agent_ctx.h"
#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/common/uds.h"
#include "scoped.h"

// The receiver's lock is taken before the context's stop lock, and no other with it.
struct dtc_receiver {
	int32_t handle; // of the channel; constant, as is kind
	int32_t kind;
	pthread_t thread;       // the job's
	int32_t holders;        // atomic: the thread and the job
	uint8_t *answer;        // owned; the thread's until it is joined
	uint32_t answer_length; // the same
	pthread_mutex_t lock;
	agent_ctx *ctx; // borrowed, guarded by lock; NULL when nobody waits any more; only the job changes it
	int32_t done;   // the thread is at its end; see agent_await
};

namespace
{

constexpr int answer_timeout_ms = 3000;
constexpr size_t stack_size = 128 * 1024; // 256 receivers at once must fit a small unit
constexpr size_t answer_size = 8192;      // one more than the longest PDU

void release(dtc_receiver *receiver)
{
	if (__atomic_sub_fetch(&receiver->holders, 1, __ATOMIC_ACQ_REL) > 0)
		return;
	(void)pthread_mutex_destroy(&receiver->lock); // nobody else knows it
	free(receiver->answer);
	free(receiver);
}

using receiver_share = scoped<dtc_receiver, release>;

// With the job's share only; NULL when memory is short.
dtc_receiver *new_receiver(agent_ctx *ctx, const transport_cfg *cfg)
{
	dtc_receiver *receiver = static_cast<dtc_receiver *>(calloc(1, sizeof(dtc_receiver)));
	if (receiver == nullptr)
		return nullptr;
	receiver->handle = cfg->handle;
	receiver->kind = cfg->params.kind;
	receiver->holders = 1;
	receiver->ctx = ctx;
	(void)pthread_mutex_init(&receiver->lock, nullptr); // with default attributes it cannot fail
	return receiver;
}

int start_thread(dtc_receiver *receiver)
{
	pthread_attr_t attributes;
	if (pthread_attr_init(&attributes) != 0)
		return -1;
	(void)pthread_attr_setstacksize(&attributes, stack_size); // else the thread has the default size
	receiver->holders = 2;
	int error = pthread_create(&receiver->thread, &attributes, dtc_response_receiver, receiver);
	if (error != 0)
		receiver->holders = 1;
	(void)pthread_attr_destroy(&attributes); // only a record on the stack
	return error == 0 ? 0 : -1;
}

bool goes_on(dtc_receiver *receiver)
{
	held_lock lock(hold(&receiver->lock));
	return receiver->ctx != nullptr && !agent_stop_requested(receiver->ctx);
}

// Is this the answer to keep? A refusal is kept like any other answer.
bool is_final(const uint8_t *answer)
{
	if (answer[0] != uds_negative_response)
		return true;
	if (answer[2] == uds_nrc_response_pending) {
		FLEET_LINE(LOG_INFO, "NRC: 0x%x: requestCorrectlyReceived-ResponsePending\n", answer[2]);
		return false;
	}
	FLEET_LINE(LOG_ERR, "Negative Response %x\n", answer[1]); // the refused SID, not the NRC: kept as it is
	return true;
}

void tell_job(dtc_receiver *receiver)
{
	held_lock lock(hold(&receiver->lock));
	if (receiver->ctx != nullptr)
		agent_set_done(receiver->ctx, &receiver->done);
}

void store_answer(dtc_receiver *receiver, const uint8_t *answer, uint32_t length)
{
	receiver->answer = static_cast<uint8_t *>(calloc(size_t{length} + 1, 1));
	if (receiver->answer == nullptr) {
		FLEET_LINE(LOG_ERR, "Unable to allocate memory");
		return;
	}
	memcpy(receiver->answer, answer, length);
	receiver->answer_length = length;
}

void receive_final_answer(dtc_receiver *receiver)
{
	while (goes_on(receiver)) {
		uint8_t answer[answer_size] = {};
		uint32_t length = sizeof answer;
		if (recv_diag_command(receiver->handle, answer, &length, answer_timeout_ms, receiver->kind) < 0) {
			FLEET_LINE(LOG_ERR, "recv_diag_command failed");
			return;
		}
		if (is_final(answer)) {
			store_answer(receiver, answer, std::min(length, static_cast<uint32_t>(sizeof answer)));
			return;
		}
	}
}

}

void dtc_receiver_start(agent_ctx *ctx, transport_cfg *cfg)
{
	receiver_share receiver(new_receiver(ctx, cfg));
	if (!receiver || start_thread(receiver.get()) != 0) {
		FLEET_ERR("Spawning of receiver failed");
		return;
	}
	cfg->receiver = receiver.release();
}

void dtc_receiver_join(transport_cfg *cfg)
{
	if (cfg->receiver == nullptr || !agent_await(cfg->receiver->ctx, &cfg->receiver->done))
		return;
	receiver_share receiver(cfg->receiver);
	(void)pthread_join(receiver->thread, nullptr); // a thread of ours, joined once
	cfg->receiver = nullptr;
	cfg->answer = receiver->answer;
	cfg->answer_length = receiver->answer_length;
	receiver->answer = nullptr;
}

void dtc_receiver_abandon(transport_cfg *cfg)
{
	receiver_share receiver(cfg->receiver);
	if (!receiver)
		return;
	cfg->receiver = nullptr;
	(void)pthread_detach(receiver->thread); // a thread of ours, not joined
	held_lock lock(hold(&receiver->lock));
	receiver->ctx = nullptr;
}

void *dtc_response_receiver(void *argument)
{
	if (argument == nullptr) {
		FLEET_LINE(LOG_ERR, "Null");
		return nullptr;
	}
	receiver_share receiver(static_cast<dtc_receiver *>(argument));
	receive_final_answer(receiver.get());
	tell_job(receiver.get());
	return nullptr;
}
