#include "movra_fleet/diagnostic_execution/tester_present.h"

#include "movra_fleet/common/agent_log.h"

namespace
{

constexpr double period_s = 2.0;
constexpr int answer_timeout_ms = 500;
constexpr uint32_t request_length = 2;

}

int start_tester_present(agent_ctx *ctx, transport_cfg *cfg)
{
	cfg->tester_present_timer = {
			.name = "Tester Present Send Frame",
			.fd = -1,
			.period = period_s,
			.argument = cfg,
			.count = -1,
			.callback = send_tester_present,
	};
	(void)tvtimer_add(ctx->timers, &cfg->tester_present_timer); // logged by the service
	return 0;
}

int stop_tester_present(agent_ctx *ctx, transport_cfg *cfg)
{
	(void)tvtimer_delete(ctx->timers, cfg->tester_present_timer.fd); // logged by the service
	return 0;
}

int send_tester_present(void *argument)
{
	const transport_cfg *cfg = static_cast<const transport_cfg *>(argument);
	uint8_t buffer[8] = {0x3E, 0x00};
	if (send_diag_command(cfg->handle, buffer, request_length, cfg->params.kind) < 0) {
		FLEET_TEXT(LOG_WARN, "Unable to send testr presnet message\n"); // kept as it is
		return 0;
	}

	uint32_t length = sizeof buffer;
	if (recv_diag_command(cfg->handle, buffer, &length, answer_timeout_ms, cfg->params.kind) != 0)
		FLEET_TEXT(LOG_WARN, "Unable to received message\n"); // kept as it is
	return 0;
}
