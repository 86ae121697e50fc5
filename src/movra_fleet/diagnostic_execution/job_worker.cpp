#include "movra_fleet/diagnostic_execution/job_worker.h"

#include <cstdlib>

#include "movra_fleet/common/agent_ctx.h"
#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/common/dtc_tables.h"
#include "movra_fleet/common/security_config.h"
#include "movra_fleet/common/uds_command.h"
#include "movra_fleet/diagnostic_execution/dtc_reading.h"
#include "movra_fleet/diagnostic_execution/transports.h"
#include "movra_fleet/diagnostic_execution/uds_exchange.h"
#include "movra_fleet/diagnostic_execution/version_reading.h"
#include "movra_fleet/replies/error_reply.h"

namespace
{

int run_dtc_request(agent_ctx *ctx, diag_job *job)
{
	if (validate_dtc_request(job) != 0) {
		FLEET_ERR("Invalid UDS Information, check for data-record");
		return -1;
	}
	return read_dtc_information(ctx, job);
}

// Nothing is formed here: the error reply carries the text that stands in the scratch. Kept as it is.
int refuse_mixed_request(agent_ctx *, diag_job *)
{
	return -1;
}

struct work_row {
	bool version;
	bool commands;
	int (*run)(agent_ctx *ctx, diag_job *job);
};

constexpr work_row work_table[] = {
		{.version = true, .commands = false, .run = read_version},
		{.version = false, .commands = true, .run = run_uds_commands},
		{.version = false, .commands = false, .run = run_dtc_request},
		{.version = true, .commands = true, .run = refuse_mixed_request},
};
static_assert(sizeof work_table / sizeof *work_table == 4);

int run_work(agent_ctx *ctx, diag_job *job)
{
	bool version = job->version_query != nullptr;
	bool commands = job->commands != nullptr;
	for (const work_row &row : work_table)
		if (row.version == version && row.commands == commands)
			return row.run(ctx, job);
	return -1;
}

void free_transports(diag_job *job)
{
	while (job->transport != nullptr) {
		transport_cfg *cfg = job->transport;
		job->transport = cfg->next;
		free_transport_cfg(&cfg);
	}
}

void free_can_ports(diag_job *job)
{
	while (job->can_ports != nullptr) {
		can_port *port = job->can_ports;
		job->can_ports = port->next;
		free(port);
	}
}

void free_commands(diag_job *job)
{
	while (job->commands != nullptr) {
		uds_command *command = job->commands;
		job->commands = command->next;
		free_uds_command(command);
	}
}

template <typename T>
void free_and_clear(T *&pointer)
{
	free(pointer);
	pointer = nullptr;
}

void run_head_job(agent_ctx *ctx)
{
	diag_job *job = pending_jobs_head(ctx);
	if (job == nullptr || job->transport_type != transport_type_can)
		return;
	if (execute_diag_job(ctx, job) != 0)
		FLEET_ERR("send_message_and_wait failed"); // kept as it is
}

void release_head_job(agent_ctx *ctx)
{
	diag_job *job = pending_jobs_head(ctx);
	if (job == nullptr)
		return;
	for (const transport_cfg *cfg = job->transport; cfg != nullptr; cfg = cfg->next)
		FLEET_LINE(LOG_INFO, "%s\n", cfg->phy_req_id_text != nullptr ? cfg->phy_req_id_text : "");
	free_job_contents(job);
	pending_jobs_remove(ctx, job);
	free(job);
}

}

void free_job_contents(diag_job *job)
{
	if (job == nullptr)
		return;
	free_can_ports(job);
	free_transports(job);
	free_commands(job);
	free_security_config(job->security);
	job->security = nullptr;
	free_and_clear(job->dtc_data);
	free_and_clear(job->reply_id);
	free_and_clear(job->source_address);
	free_and_clear(job->target_address);
	(void)json_object_put(job->version_query); // takes NULL; whether it was the last reference does not matter
	job->version_query = nullptr;
}

int execute_diag_job(agent_ctx *ctx, diag_job *job)
{
	int result = run_work(ctx, job);
	if (result < 0) {
		char cause[log_scratch_size];
		log_scratch_read(cause);
		(void)send_error_reply(ctx, job, cause, "UDS_NO_RESPONSE"); // always 0
	}
	return result;
}

void diag_job_worker(void *argument)
{
	agent_ctx *ctx = static_cast<agent_ctx *>(argument);
	if (ctx == nullptr) {
		FLEET_ERR("Invalid TP Cfg received"); // kept as it is
		return;
	}
	run_head_job(ctx);
	release_head_job(ctx);
}
