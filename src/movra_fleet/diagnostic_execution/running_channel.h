// The channel of the job that runs, which the agent's stop takes away from a job that does not let go of it: an answer
// in segments may take minutes.
#pragma once

#include <cstdint>

#include "movra_fleet/common/records.h"

// The channel of cfg, just opened, is in use. On the worker thread.
void running_channel_enter(agent_ctx *ctx, const transport_cfg *cfg);

// It is not any more. True when closing it is the caller's; false when the stop has closed it. On the worker thread.
bool running_channel_leave(agent_ctx *ctx);

// Gives the running job a few seconds to leave its channel, then closes it, which ends every call under way on it. For
// the thread that stops the agent, after agent_request_stop.
void running_channel_end(agent_ctx *ctx, uint32_t grace_s);
