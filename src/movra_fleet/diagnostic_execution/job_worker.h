// Runs pending jobs, on the pool's worker thread.
#pragma once

#include "movra_fleet/common/records.h"

// The work item of every queued job: runs the job at the head of the context's list and releases it. The argument
// is the agent_ctx.
void diag_job_worker(void *ctx);

// Does what the job asks for. 0 or more, or negative when it failed; an error reply has been sent then.
int execute_diag_job(agent_ctx *ctx, diag_job *job);

// Frees what the job owns, the commands that no reply has reported included, and leaves it empty; the record stays
// the caller's. NULL is accepted.
void free_job_contents(diag_job *job);
