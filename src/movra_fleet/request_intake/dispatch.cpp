// A request that fails a check is logged and dropped: no reply, nothing of the agent changed. The job is complete
// before it is queued, because from then on it is the worker's.
#include "movra_fleet/request_intake/dispatch.h"

#include <cstdlib>
#include <cstring>

#include "movra_fleet/common/agent_ctx.h"
#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/common/job_memory.h"
#include "movra_fleet/common/request_number.h"
#include "movra_fleet/diagnostic_execution/job_worker.h"
#include "movra_fleet/request_intake/can_settings.h"
#include "movra_fleet/request_intake/dtc_request.h"
#include "movra_fleet/request_intake/routine_commands.h"
#include "movra_fleet/request_intake/version_request.h"
#include "scoped.h"
#include "threadpool.h"
#include "tervUtils.h"

namespace
{

constexpr const char out_of_memory[] = "Memory Allocation failed";

constexpr int hexadecimal = 16;

// Services that body.uds may name: ReadDTCInformation (ISO 14229-1).
constexpr uint8_t supported_sids[] = {0x19};
constexpr size_t supported_sid_count = 1;
static_assert(sizeof supported_sids / sizeof *supported_sids == supported_sid_count);

void free_job(diag_job *job)
{
	free_job_contents(job);
	free(job);
}

using owned_job = scoped<diag_job, free_job>;

int drop(const char *text)
{
	FLEET_TEXT(LOG_ERR, text);
	return -1;
}

// The requester's address, or NULL when the first entry is no name to which a reply could be sent.
const char *sender_address(const address_entry *sender)
{
	if (sender == nullptr || (sender->type != TERVBUS_ADDRESS_UNIT && sender->type != TERVBUS_ADDRESS_GROUP))
		return nullptr;
	return sender->value.text;
}

int read_head(json_object *request, const address_entry *sender, diag_job *job)
{
	const char *text = nullptr;
	if (json_get_path(request, json_type_string, &text, "reply-id", nullptr) != 0)
		return drop("reply-id not found in JSON message");
	const char *source = sender_address(sender);
	job->reply_id = strdup(text);
	job->source_address = source != nullptr ? strdup(source) : nullptr;
	if (job->reply_id == nullptr || (source != nullptr && job->source_address == nullptr))
		return drop(out_of_memory);

	if (json_get_path(request, json_type_string, &text, "body", "targetAddress", nullptr) != 0)
		return drop("target not found in JSON message");
	job->target_address = strdup(text);
	if (job->target_address == nullptr)
		return drop(out_of_memory);

	if (json_get_path(request, json_type_string, &text, "type", nullptr) != 0)
		return drop("No 'type' field found");
	return 0;
}

bool sid_is_supported(uint32_t sid)
{
	for (size_t i = 0; i < supported_sid_count; ++i)
		if (supported_sids[i] == sid)
			return true;
	return false;
}

int read_dtc_work(json_object *request, diag_job *job)
{
	const char *text = nullptr;
	if (json_get_path(request, json_type_string, &text, "body", "uds", "SID", nullptr) != 0)
		return drop("SID not found in JSON message");
	uint32_t sid = request_number(text, hexadecimal);
	if (!sid_is_supported(sid)) {
		FLEET_ERR("SID(0x%02X) not Supported", sid);
		return -1;
	}
	job->sid = static_cast<uint8_t>(sid);
	return parse_dtc_request(request, job) == 0 ? 0 : drop("UDS info parsing failed");
}

// The first kind of work that is present counts; a request may have none.
int read_work(json_object *request, diag_job *job)
{
	if (json_path_exists(request, json_type_object, "body", "uds", nullptr))
		return read_dtc_work(request, job);
	if (json_path_exists(request, json_type_object, "body", "version", nullptr))
		return parse_version_request(request, job);
	if (json_path_exists(request, json_type_object, "body", "routine", nullptr))
		return parse_routine(request, job);
	return 0;
}

int read_transport_settings(json_object *request, diag_job *job)
{
	const char *mode = nullptr;
	if (json_get_path(request, json_type_string, &mode, "body", "mode", nullptr) != 0)
		return drop("mode not found in JSON message");
	if (strcmp(mode, "CAN") != 0) {
		FLEET_ERR("%s Transport type not supported yet!!\n", mode);
		return -1;
	}
	job->transport_type = transport_type_can;
	if (parse_can_config(request, job) != 0)
		return drop("CAN Configuration parsing failed");
	return 0;
}

// Takes the job over on success; else it is the caller's again.
int queue_job(agent_ctx *ctx, diag_job *job)
{
	job->memory = job_memory(job);
	if (!pending_jobs_append(ctx, job))
		return drop("too many pending requests");
	if (threadpool_add_work(ctx->pool, diag_job_worker, ctx) == 0)
		return 0;
	pending_jobs_remove(ctx, job); // no worker will come for it
	return drop("request could not be queued");
}

}

int handle_bus_message(const char *text, size_t length, const address_entry *sender, void *ctx)
{
	if (text == nullptr) {
		FLEET_TEXT(LOG_ERR, "msg is NULL");
		return 0;
	}
	if (length == 0) {
		FLEET_TEXT(LOG_ERR, "len is 0");
		return 0;
	}
	const char *source = sender_address(sender);
	FLEET_LINE(LOG_INFO, "Received msg from %s : %s\n", source != nullptr ? source : "(null)", text);

	json_object *request = json_tokener_parse(text);
	if (request == nullptr) {
		FLEET_ERR("Could not parse JSON message %s", text);
		return 0;
	}
	(void)dispatch_request(request, sender, static_cast<agent_ctx *>(ctx)); // a drop has been logged
	(void)json_object_put(request);                                         // the last reference
	return 0;
}

int dispatch_request(json_object *request, const address_entry *sender, agent_ctx *ctx)
{
	owned_job job(static_cast<diag_job *>(calloc(1, sizeof(diag_job))));
	if (!job)
		return drop(out_of_memory);
	if (read_head(request, sender, job.get()) != 0 || read_work(request, job.get()) != 0 ||
			read_transport_settings(request, job.get()) != 0 || queue_job(ctx, job.get()) != 0)
		return -1;
	(void)job.release(); // the worker's
	return 0;
}
