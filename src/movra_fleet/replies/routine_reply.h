// The reply to a list of raw UDS commands.
#pragma once

#include "movra_fleet/common/records.h"

// Reports the job's commands in order, and takes them out of the job and frees them on the way. 0 when the reply was
// handed over, else -1, logged. A command whose bytes cannot be shown ends the list: the commands after it stay in the
// job and the reply goes without them.
int send_routine_reply(agent_ctx *ctx, diag_job *job);
