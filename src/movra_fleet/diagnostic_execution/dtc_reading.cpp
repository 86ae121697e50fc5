#include "movra_fleet/diagnostic_execution/dtc_reading.h"

#include <cstdlib>
#include <cstring>

#include "movra_fleet/common/agent_ctx.h"
#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/diagnostic_execution/channel.h"
#include "movra_fleet/diagnostic_execution/dtc_receiver.h"
#include "movra_fleet/replies/dtc_report.h"
#include "scoped.h"

namespace
{

constexpr const char all_ecus[] = "-1";
constexpr uint32_t header_length = 2; // service and sub-function

// Opens the channels in order, each with a receiver. 0 when the request is to be sent, else -1. An interface that is
// missing or down ends the list, but not the request: kept as it is.
int open_channels(agent_ctx *ctx, diag_job *job)
{
	for (transport_cfg *cfg = job->transport; cfg != nullptr; cfg = cfg->next) {
		FLEET_LINE(LOG_INFO, "Sending commad to %s", cfg->phy_req_id_text != nullptr ? cfg->phy_req_id_text : "nill");
		if (agent_stop_requested(ctx))
			return -1;
		if (!interface_ready(cfg))
			return 0;
		if (agent_stop_requested(ctx) || open_channel(cfg) < 0)
			return -1;
		dtc_receiver_start(ctx, cfg);
	}
	return 0;
}

// The bytes to send, job->dtc_data_length + header_length of them, or NULL, logged. The caller frees them.
uint8_t *new_request(const diag_job *job)
{
	uint8_t *request = static_cast<uint8_t *>(calloc(size_t{job->dtc_data_length} + header_length, 1));
	if (request == nullptr) {
		FLEET_ERR("Memory Allication failed"); // kept as it is
		return nullptr;
	}
	request[0] = job->sid;
	request[1] = static_cast<uint8_t>(job->dtc_subfunction);
	if (job->dtc_data_length > 0)
		memcpy(request + header_length, job->dtc_data, job->dtc_data_length);
	return request;
}

int send_request(const diag_job *job, int32_t handle, const uint8_t *request)
{
	if (send_diag_command(handle, request, job->dtc_data_length + header_length, job->transport_type) < 0) {
		FLEET_ERR("send_diag_command failed");
		return -1;
	}
	return 0;
}

// To the first ECU of the job. Without a request there is nothing to wait for.
void ask_one(agent_ctx *ctx, diag_job *job, const uint8_t *request)
{
	transport_cfg *cfg = job->transport;
	if (cfg != nullptr && !agent_stop_requested(ctx) && send_request(job, cfg->handle, request) == 0)
		dtc_receiver_join(cfg);
}

// Once on every CAN port, up to the first failure; the ECUs that were reached answer all the same.
void ask_all(agent_ctx *ctx, diag_job *job, const uint8_t *request)
{
	for (can_port *port = job->can_ports; port != nullptr && !agent_stop_requested(ctx); port = port->next) {
		port->handle = transport_init(port->params.kind, &port->params);
		// A negative handle is sent on as well: kept as it is.
		if (port->handle != 0 && send_request(job, port->handle, request) < 0)
			break;
	}
	for (transport_cfg *cfg = job->transport; cfg != nullptr; cfg = cfg->next)
		dtc_receiver_join(cfg);
}

int ask_and_report(agent_ctx *ctx, diag_job *job)
{
	scoped<uint8_t, free> request(new_request(job));
	if (!request)
		return -1;
	if (strcmp(job->target_address, all_ecus) == 0)
		ask_all(ctx, job, request.get());
	else
		ask_one(ctx, job, request.get());

	FLEET_LINE(LOG_INFO, "Preparin to send info to %s", job->source_address != nullptr ? job->source_address : "nill");
	if (send_dtc_response_to_bridge(ctx, job) < 0) {
		FLEET_ERR("send_dtc_response_to_bridge failed");
		return -1;
	}
	return 0;
}

void close_handle(int32_t *handle, int32_t kind)
{
	if (*handle <= 0)
		return;
	(void)transport_deinit(*handle, kind); // nothing can be done about a channel that stays
	*handle = -1;
}

// Receivers that were not waited for are let go first: the end of its channel is then the end of each of them.
void close_channels(diag_job *job)
{
	for (transport_cfg *cfg = job->transport; cfg != nullptr; cfg = cfg->next)
		dtc_receiver_abandon(cfg);
	for (can_port *port = job->can_ports; port != nullptr; port = port->next)
		close_handle(&port->handle, port->params.kind);
	for (transport_cfg *cfg = job->transport; cfg != nullptr; cfg = cfg->next)
		close_handle(&cfg->handle, cfg->params.kind);
}

}

int read_dtc_information(agent_ctx *ctx, diag_job *job)
{
	int result = open_channels(ctx, job) == 0 ? ask_and_report(ctx, job) : -1;
	close_channels(job);
	return result;
}
