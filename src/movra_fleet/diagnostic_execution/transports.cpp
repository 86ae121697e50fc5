#include "movra_fleet/diagnostic_execution/transports.h"

#include <cstdio>
#include <cstdlib>

#include "scoped.h"

namespace
{

bool known_kind(int32_t kind)
{
	return kind == 0 || kind == 1;
}

}

uds_transport_params *transport_params(transport_cfg *cfg)
{
	return cfg != nullptr && known_kind(cfg->params.kind) ? &cfg->params : nullptr;
}

int add_can_port(diag_job *job, uint32_t port_id, const transport_cfg *cfg)
{
	can_port **tail = &job->can_ports;
	for (; *tail != nullptr; tail = &(*tail)->next)
		if ((*tail)->id == port_id)
			return 0;
	if (!known_kind(cfg->params.kind))
		return -1;

	scoped<can_port, free> port(static_cast<can_port *>(calloc(1, sizeof(can_port))));
	if (!port)
		return -1;
	port->id = port_id;
	port->handle = -1;
	port->params.kind = cfg->params.kind;
	port->params.phy_req_id = port_id;
	(void)snprintf(port->params.ifname, sizeof port->params.ifname, "%s", cfg->params.ifname); // the same size
	*tail = port.release();
	return 0;
}

void free_transport_cfg(transport_cfg **cfg)
{
	if (*cfg == nullptr)
		return;
	free((*cfg)->phy_req_id_text);
	free((*cfg)->answer);
	free(*cfg);
	*cfg = nullptr;
}
