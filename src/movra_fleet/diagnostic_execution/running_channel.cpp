#include "movra_fleet/diagnostic_execution/running_channel.h"

#include <ctime>

#include "held_lock.h"

namespace
{

// Who closes the channel is settled under the lock, so that it is closed once.
enum channel_states : int32_t {
	CHANNEL_NONE = 0,
	CHANNEL_IN_USE = 1, // the worker closes it
	CHANNEL_TAKEN = 2,  // the stopping thread does
};

struct channel {
	int32_t handle;
	int32_t kind;
};

// False when the job has left its channel in time.
bool take_channel(agent_ctx *ctx, uint32_t grace_s, channel *taken)
{
	struct timespec end = {};
	(void)clock_gettime(CLOCK_MONOTONIC, &end); // fails only for an unknown clock
	end.tv_sec += static_cast<time_t>(grace_s);

	held_lock lock = hold(&ctx->stop_lock);
	while (ctx->channel_state == CHANNEL_IN_USE)
		if (pthread_cond_clockwait(&ctx->stop_wake, &ctx->stop_lock, CLOCK_MONOTONIC, &end) != 0)
			break;
	if (ctx->channel_state != CHANNEL_IN_USE)
		return false;
	ctx->channel_state = CHANNEL_TAKEN;
	*taken = {.handle = ctx->channel_handle, .kind = ctx->channel_kind};
	return true;
}

}

void running_channel_enter(agent_ctx *ctx, const transport_cfg *cfg)
{
	held_lock lock = hold(&ctx->stop_lock);
	ctx->channel_state = CHANNEL_IN_USE;
	ctx->channel_handle = cfg->handle;
	ctx->channel_kind = cfg->params.kind;
}

bool running_channel_leave(agent_ctx *ctx)
{
	held_lock lock = hold(&ctx->stop_lock);
	bool own = ctx->channel_state == CHANNEL_IN_USE;
	ctx->channel_state = CHANNEL_NONE;
	pthread_cond_broadcast(&ctx->stop_wake);
	return own;
}

void running_channel_end(agent_ctx *ctx, uint32_t grace_s)
{
	channel taken = {};
	if (take_channel(ctx, grace_s, &taken))
		(void)transport_deinit(taken.handle, taken.kind); // nothing can be done about one that stays
}
