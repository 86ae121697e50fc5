// The reply to a DTC request.
#pragma once

#include "movra_fleet/common/records.h"

// Reports the answers that the job's transports hold, in their order; those without one are left out. The answers stay
// as they are. 0 when the reply was handed over, else -1, logged: also when there is no answer at all.
int send_dtc_response_to_bridge(agent_ctx *ctx, const diag_job *job);
