// Opening the channel to an ECU, for all kinds of work. What fails is logged in the words that the requester is told.
#pragma once

#include "movra_fleet/common/records.h"

// Does the ECU's interface exist, and is it up?
bool interface_ready(const transport_cfg *cfg);

// Opens the channel; the handle is stored in any case. 0, or -1.
int open_channel(transport_cfg *cfg);

// Both, for a job with one channel. Each may take seconds, so an agent that stops begins neither: -1 then, unlogged.
int open_ready_channel(agent_ctx *ctx, transport_cfg *cfg);
