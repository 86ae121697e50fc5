#include "movra_fleet/diagnostic_execution/channel.h"

#include "movra_fleet/common/agent_ctx.h"
#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/diagnostic_execution/transports.h"

namespace
{

// The two interface checks give their answer in the low byte.
bool yes(int answer)
{
	return (answer & 0xFF) == 1;
}

}

bool interface_ready(const transport_cfg *cfg)
{
	if (!yes(transport_interface_availibility(cfg->params.ifname, cfg->params.kind))) {
		FLEET_ERR("%s is not available", cfg->params.ifname);
		return false;
	}
	if (!yes(transport_interface_status(cfg->params.ifname, cfg->params.kind))) {
		FLEET_ERR("%s is not UP", cfg->params.ifname);
		return false;
	}
	return true;
}

int open_channel(transport_cfg *cfg)
{
	cfg->handle = transport_init(cfg->params.kind, transport_params(cfg));
	if (cfg->handle < 0) {
		FLEET_ERR("Unable open can port");
		return -1;
	}
	return 0;
}

int open_ready_channel(agent_ctx *ctx, transport_cfg *cfg)
{
	bool ready = !agent_stop_requested(ctx) && interface_ready(cfg) && !agent_stop_requested(ctx);
	return ready ? open_channel(cfg) : -1;
}
