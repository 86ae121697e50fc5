// Nothing is decoded here: an ECU's bytes go out as hexadecimal text, and the requester makes DTCs of them.
#include "movra_fleet/replies/dtc_report.h"

#include <cstdio>
#include <cstdlib>

#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/common/dtc_tables.h"
#include "movra_fleet/common/hex.h"
#include "movra_fleet/common/uds.h"
#include "movra_fleet/replies/reply_envelope.h"
#include "scoped.h"

namespace
{

constexpr uint32_t header_length = 2; // of a positive answer: the service and the echoed sub-function

// Nothing received, a zero where the service should be, or a positive answer without its header.
bool has_answer(const transport_cfg *cfg)
{
	return cfg->answer != nullptr && cfg->answer_length != 0 && cfg->answer[0] != 0 &&
			(cfg->answer[0] == uds_negative_response || cfg->answer_length >= header_length);
}

// A negative answer whole, a positive one without its header.
char *answer_text(const transport_cfg *cfg)
{
	uint32_t skipped = cfg->answer[0] == uds_negative_response ? 0 : header_length;
	return bytes_to_hex_string(cfg->answer + skipped, cfg->answer_length - skipped);
}

int append(json_object *records, json_object *element)
{
	owned_json owned(element);
	if (json_object_array_add(records, owned.get()) != 0)
		return -1;
	(void)owned.release(); // the array's now
	return 0;
}

// 0, or -1, logged, when the walk ends here; what is in the array already is reported all the same.
int append_answer(json_object *records, const transport_cfg *cfg)
{
	scoped<char, free> data(answer_text(cfg));
	if (!data) {
		FLEET_ERR("Could not allocate memory");
		return -1;
	}
	owned_json element(json_object_new_object());
	if (!element || reply_add_text(element.get(), "phy-req-id", cfg->phy_req_id_text) != 0 ||
			reply_add_text(element.get(), "data", data.get()) != 0 || append(records, element.release()) != 0) {
		FLEET_ERR("Unable to add");
		return -1;
	}
	return 0;
}

// The list of answers, or NULL, logged, when there are none.
json_object *answer_records(const diag_job *job)
{
	owned_json records(json_object_new_array());
	for (const transport_cfg *cfg = job->transport; records && cfg != nullptr; cfg = cfg->next) {
		FLEET_LINE(LOG_DBG, "checking for phy-req-id %s ...\n",
				cfg->phy_req_id_text != nullptr ? cfg->phy_req_id_text : "nill");
		if (has_answer(cfg) && append_answer(records.get(), cfg) != 0)
			break;
	}
	if (!records || json_object_array_length(records.get()) == 0) {
		FLEET_ERR("Invalid Array");
		return nullptr;
	}
	return records.release();
}

int add_header(json_object *uds, const diag_job *job)
{
	char response[8] = "";
	(void)snprintf(
			response, sizeof response, "0x%02X", job->sid | unsigned{uds_positive_response_bit}); // four characters
	if (reply_add_text(uds, "resp", response) != 0) {
		FLEET_ERR("Could not add 'resp' to JSON");
		return -1;
	}
	const char *name = dtc_report_type_name(job->dtc_subfunction & 0xFF);
	if (name == nullptr) {
		FLEET_ERR("Could not find substring for %02X\n", job->dtc_subfunction);
		return -1;
	}
	if (reply_add_text(uds, "subfunction", name) != 0) {
		FLEET_ERR("Could not add 'subfunction' to JSON");
		return -1;
	}
	return 0;
}

// The "uds" object, or NULL, logged.
json_object *uds_object(const diag_job *job)
{
	owned_json uds(json_object_new_object());
	if (!uds) {
		FLEET_ERR("COuld not create JSON 'uds' message"); // kept as it is
		return nullptr;
	}
	if (add_header(uds.get(), job) != 0)
		return nullptr;
	json_object *records = answer_records(job);
	if (records == nullptr)
		return nullptr;
	if (reply_add(uds.get(), "data-record", records) != 0) {
		FLEET_ERR("Could not add 'data-record' to JSON");
		return nullptr;
	}
	return uds.release();
}

}

int send_dtc_response_to_bridge(agent_ctx *ctx, const diag_job *job)
{
	owned_json uds(uds_object(job));
	if (!uds)
		return -1;
	owned_json body(json_object_new_object());
	if (!body) {
		FLEET_ERR("Could not create JSON 'body' message");
		return -1;
	}
	// One text for both members: kept as it is.
	if (reply_add(body.get(), "uds", uds.release()) != 0 ||
			reply_add_text(body.get(), "targetAddress", job->target_address) != 0) {
		FLEET_ERR("Could not add 'uds' to JSON");
		return -1;
	}
	return reply_send(ctx, job, body.release(), &report_texts);
}
