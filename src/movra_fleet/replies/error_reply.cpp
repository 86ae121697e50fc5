#include "movra_fleet/replies/error_reply.h"

#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/replies/reply_envelope.h"

namespace
{

constexpr const char out_of_memory[] = "Memory Allocation failed";

constexpr envelope_texts texts = {
		.not_created = out_of_memory,
		.type = "Could not add 'type'",
		.reply_to = "Could not add 'reply-to'",
		.body = "Could not add 'body'",
};

// The error object, or NULL, logged.
json_object *error_object(const char *nrc, const char *error_type)
{
	owned_json error(json_object_new_object());
	if (!error) {
		FLEET_ERR("%s", out_of_memory);
		return nullptr;
	}
	// One text for both members: kept as it is.
	if (reply_add_text(error.get(), "error-type", error_type) != 0 ||
			reply_add_text(error.get(), "uds-nrc", nrc) != 0) {
		FLEET_ERR("Could not add 'error-type'");
		return nullptr;
	}
	return error.release();
}

// The body around the error object, or NULL, logged.
json_object *error_body(const char *nrc, const char *error_type)
{
	owned_json error(error_object(nrc, error_type));
	if (!error)
		return nullptr;
	owned_json body(json_object_new_object());
	if (!body) {
		FLEET_ERR("%s", out_of_memory);
		return nullptr;
	}
	if (reply_add(body.get(), "error", error.release()) != 0) {
		FLEET_ERR("Could not add 'error'");
		return nullptr;
	}
	return body.release();
}

}

int send_error_reply(agent_ctx *ctx, const diag_job *job, const char *nrc, const char *error_type)
{
	json_object *body = error_body(nrc, error_type);
	if (body != nullptr)
		(void)reply_send(ctx, job, body, &texts); // a failure has been logged
	return 0;
}
