// The pool and the timers stand before the bus client connects, so that the first request finds them. The handle is
// stored under the bus lock that every reply takes: the reply to a very early request waits for it.
#include "movra_fleet/agent_core/agent_core.h"

#include <cstdio>
#include <cstdlib>

#include "held_lock.h"
#include "movra_fleet/common/agent_ctx.h"
#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/diagnostic_execution/job_worker.h"
#include "movra_fleet/diagnostic_execution/running_channel.h"
#include "movra_fleet/request_intake/dispatch.h"
#include "movrabus/movrabus.h"
#include "threadpool.h"
#include "tvtimer.h"
#include "udsutils.h"

namespace
{

constexpr int worker_count = 1; // jobs run one at a time, in the order of their arrival
constexpr int timer_capacity = 1024;
constexpr uint32_t channel_grace_s = 2; // an ordinary receive ends in it, and the whole stop within 5 s
constexpr size_t broker_address_size = 1024;

constexpr const char version[] = "";
constexpr const char build[] = "";

int start_services(agent_ctx *ctx)
{
	if (threadpool_init(&ctx->pool, worker_count) < 0) {
		FLEET_TEXT(LOG_ERR, "Failed to spawn threadpool");
		return -1;
	}
	ctx->timers = tvtimer_init(timer_capacity); // without it, only the keep-alive of a job fails
	return 0;
}

int connect_bus(agent_ctx *ctx, const agent_settings *settings)
{
	char address[broker_address_size] = "";
	(void)snprintf(address, sizeof address, "tcp://%s:%d", settings->broker_host,
			static_cast<int>(settings->broker_port)); // a host beyond the buffer is cut

	held_lock lock = hold(&ctx->bus_lock);
	ctx->bus = mobus_init(nullptr, settings->cert_dir, address, ctx, handle_bus_message, settings->extra_arg);
	return ctx->bus != nullptr ? 0 : -1;
}

agent_ctx *start_agent(const agent_settings *settings, const char *config_source)
{
	agent_ctx *ctx = agent_ctx_new();
	if (ctx == nullptr) {
		FLEET_TEXT(LOG_ERR, "Memory Allocation failed");
		return nullptr;
	}
	if (load_agent_config(ctx, config_source) != 0) {
		FLEET_TEXT(LOG_ERR, "Could not parse configuration");
		return ctx;
	}
	if (start_services(ctx) < 0 || connect_bus(ctx, settings) < 0) {
		agent_release(&ctx);
		return nullptr;
	}
	return ctx;
}

// What the worker has not come to.
void release_pending_jobs(agent_ctx *ctx)
{
	while (diag_job *job = pending_jobs_head(ctx)) {
		pending_jobs_remove(ctx, job);
		free_job_contents(job);
		free(job);
	}
}

}

agent_ctx *agent_init(const agent_settings *settings, const char *config_source)
{
	if (config_source == nullptr) {
		FLEET_TEXT(LOG_ERR, "Invalid uds config\n");
		return nullptr;
	}
	verbosity = settings->verbosity;
	FLEET_LINE(LOG_INFO, "Orlo Movra Quillet Version: %s-%s\n", version, build);

	agent_ctx *ctx = start_agent(settings, config_source);
	movra_uds_util_debug_init(settings->verbosity);
	return ctx;
}

int load_agent_config(agent_ctx *, const char *)
{
	return 0;
}

int agent_deinit(agent_ctx *ctx)
{
	if (ctx == nullptr)
		return 0;
	agent_request_stop(ctx);
	mobus_deinit(agent_take_bus(ctx));
	running_channel_end(ctx, channel_grace_s);
	if (ctx->pool != nullptr)
		(void)threadpool_destroy(ctx->pool); // 0 in every case
	if (ctx->timers != nullptr)
		tvtimer_deinit(ctx->timers);
	release_pending_jobs(ctx);
	agent_ctx_free(ctx);
	return 0;
}

void agent_release(agent_ctx **holder)
{
	(void)agent_deinit(*holder); // 0 in every case
}
