// What the parts of the agent share through the context: the list of pending jobs, the way out for replies,
// and the wish to stop.
#pragma once

#include "movra_fleet/common/records.h"

// At most this much waits for the worker; a request beyond is refused.
inline constexpr uint32_t pending_jobs_limit = 1024;
inline constexpr uint32_t pending_commands_limit = 16384;
inline constexpr uint32_t pending_memory_limit = 64 << 20; // bytes, as job_memory reckons

// A context with its locks and nothing else; NULL when memory is short.
agent_ctx *agent_ctx_new();

// Frees the context alone; what it points to has been taken down before. NULL is accepted.
void agent_ctx_free(agent_ctx *ctx);

// Appends a complete job, its memory reckoned, at the tail. False, and the job stays the caller's, when too much is
// waiting already.
bool pending_jobs_append(agent_ctx *ctx, diag_job *job);

// The oldest job, which stays in the list while the worker runs it; NULL when there is none.
diag_job *pending_jobs_head(agent_ctx *ctx);

// Takes a job out of the list, wherever it stands; it is the caller's then.
void pending_jobs_remove(agent_ctx *ctx, diag_job *job);

// Sends a reply to a unit address over the agent's bus connection. What fails has been logged when it returns.
void agent_send_reply(agent_ctx *ctx, const char *text, const char *address);

// Takes the bus handle out of the context, after a reply under way; later replies find none.
mobus_connection *agent_take_bus(agent_ctx *ctx);

// Ends every pause of a job, now and in future. Any thread.
void agent_request_stop(agent_ctx *ctx);
bool agent_stop_requested(agent_ctx *ctx);

// Sleeps whole seconds, or until the agent stops.
void agent_pause(agent_ctx *ctx, uint32_t seconds);

// Waits until *done, or until the agent stops; true when *done. It is guarded by the stop lock.
bool agent_await(agent_ctx *ctx, const int32_t *done);

// Sets *done and wakes whoever awaits it. Any thread.
void agent_set_done(agent_ctx *ctx, int32_t *done);
