#include "movra_fleet/common/agent_ctx.h"

#include <cstdlib>
#include <ctime>

#include "held_lock.h"

namespace
{

bool fits(uint32_t used, uint32_t more, uint32_t limit)
{
	return more <= limit && used <= limit - more;
}

}

agent_ctx *agent_ctx_new()
{
	agent_ctx *ctx = static_cast<agent_ctx *>(calloc(1, sizeof(agent_ctx)));
	if (ctx == nullptr)
		return nullptr;

	// With default attributes none of these can fail on Linux.
	(void)pthread_mutex_init(&ctx->pending_lock, nullptr);
	(void)pthread_mutex_init(&ctx->bus_lock, nullptr);
	(void)pthread_mutex_init(&ctx->stop_lock, nullptr);
	(void)pthread_cond_init(&ctx->stop_wake, nullptr);
	return ctx;
}

void agent_ctx_free(agent_ctx *ctx)
{
	if (ctx == nullptr)
		return;
	pthread_cond_destroy(&ctx->stop_wake);
	pthread_mutex_destroy(&ctx->stop_lock);
	pthread_mutex_destroy(&ctx->bus_lock);
	pthread_mutex_destroy(&ctx->pending_lock);
	free(ctx);
}

bool pending_jobs_append(agent_ctx *ctx, diag_job *job)
{
	held_lock lock = hold(&ctx->pending_lock);
	if (ctx->pending_job_count >= pending_jobs_limit ||
			!fits(ctx->pending_command_count, job->command_count, pending_commands_limit) ||
			!fits(ctx->pending_memory, job->memory, pending_memory_limit))
		return false;

	diag_job **tail = &ctx->pending_jobs;
	while (*tail != nullptr)
		tail = &(*tail)->next;
	job->next = nullptr;
	*tail = job;
	ctx->pending_job_count += 1;
	ctx->pending_command_count += job->command_count;
	ctx->pending_memory += job->memory;
	return true;
}

diag_job *pending_jobs_head(agent_ctx *ctx)
{
	held_lock lock = hold(&ctx->pending_lock);
	return ctx->pending_jobs;
}

void pending_jobs_remove(agent_ctx *ctx, diag_job *job)
{
	held_lock lock = hold(&ctx->pending_lock);
	for (diag_job **link = &ctx->pending_jobs; *link != nullptr; link = &(*link)->next) {
		if (*link != job)
			continue;
		*link = job->next;
		job->next = nullptr;
		ctx->pending_job_count -= 1;
		ctx->pending_command_count -= job->command_count;
		ctx->pending_memory -= job->memory;
		return;
	}
}

void agent_send_reply(agent_ctx *ctx, const char *text, const char *address)
{
	held_lock lock = hold(&ctx->bus_lock);
	// A failure has been logged by the bus client; a reply is not sent again.
	(void)mobus_send_message(ctx->bus, text, TERVBUS_ADDRESS_UNIT, address);
}

mobus_connection *agent_take_bus(agent_ctx *ctx)
{
	held_lock lock = hold(&ctx->bus_lock);
	mobus_connection *bus = ctx->bus;
	ctx->bus = nullptr;
	return bus;
}

void agent_request_stop(agent_ctx *ctx)
{
	held_lock lock = hold(&ctx->stop_lock);
	ctx->stopping = 1;
	pthread_cond_broadcast(&ctx->stop_wake);
}

bool agent_stop_requested(agent_ctx *ctx)
{
	held_lock lock = hold(&ctx->stop_lock);
	return ctx->stopping != 0;
}

void agent_pause(agent_ctx *ctx, uint32_t seconds)
{
	struct timespec end = {};
	(void)clock_gettime(CLOCK_MONOTONIC, &end); // fails only for an unknown clock
	end.tv_sec += static_cast<time_t>(seconds);

	held_lock lock = hold(&ctx->stop_lock);
	while (ctx->stopping == 0)
		if (pthread_cond_clockwait(&ctx->stop_wake, &ctx->stop_lock, CLOCK_MONOTONIC, &end) != 0)
			return;
}

bool agent_await(agent_ctx *ctx, const int32_t *done)
{
	held_lock lock = hold(&ctx->stop_lock);
	while (*done == 0 && ctx->stopping == 0)
		pthread_cond_wait(&ctx->stop_wake, &ctx->stop_lock);
	return *done != 0;
}

void agent_set_done(agent_ctx *ctx, int32_t *done)
{
	held_lock lock = hold(&ctx->stop_lock);
	*done = 1;
	pthread_cond_broadcast(&ctx->stop_wake);
}
