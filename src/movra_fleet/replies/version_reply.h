// The reply to a version request.
#pragma once

#include "movra_fleet/common/records.h"

// Reports the version text, whatever it is. 0 when the reply was handed over, else -1, logged.
int send_version_reply(agent_ctx *ctx, const diag_job *job, const char *version);
