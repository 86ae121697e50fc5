// Runs a job's raw UDS commands against its ECU, and has them reported.
#pragma once

#include "movra_fleet/common/records.h"

// Opens the channel of the job's first transport, runs the commands in order up to the first failure, closes the
// channel and sends the routine reply, which consumes the commands. 0, or -1 when the channel could not be opened; the
// reply has been built then as well. On the worker thread.
int run_uds_commands(agent_ctx *ctx, diag_job *job);
