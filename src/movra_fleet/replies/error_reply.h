// The reply to a job that failed.
#pragma once

#include "movra_fleet/common/records.h"

// Sends the error reply: nrc is the cause as text for people, not a number. Always 0; what fails is logged, and
// nothing is sent then.
int send_error_reply(agent_ctx *ctx, const diag_job *job, const char *nrc, const char *error_type);
