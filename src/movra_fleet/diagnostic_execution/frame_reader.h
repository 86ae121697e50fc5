// One frame from a CAN port, received on a thread of its own.
//
// The library may block for 5 s in a receive, and nothing wakes it: a raw CAN socket cannot be shut down, and a closed
// descriptor goes on being waited for. So the agent's stop leaves the thread behind. The thread and its caller share a
// record, which goes with the last of them and closes the port.
#pragma once

#include <cstdint>

#include "movra_fleet/common/records.h"

// Receives one frame, zeros behind a short one, and closes the descriptor. 0, or -1 when none came, the agent stops, or
// memory is short; data are written on success only. On the worker thread.
int read_one_frame(agent_ctx *ctx, int descriptor, uint8_t (&data)[8]);
