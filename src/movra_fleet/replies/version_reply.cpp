#include "movra_fleet/replies/version_reply.h"

#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/replies/reply_envelope.h"

int send_version_reply(agent_ctx *ctx, const diag_job *job, const char *version)
{
	owned_json body(json_object_new_object());
	if (!body) {
		FLEET_ERR("Could not create JSON 'body' message");
		return -1;
	}
	// One text for both members, and not for these: kept as it is.
	if (reply_add_text(body.get(), "version", version) != 0 ||
			reply_add_text(body.get(), "targetAddress", job->target_address) != 0) {
		FLEET_ERR("Could not add 'uds' to JSON");
		return -1;
	}
	return reply_send(ctx, job, body.release(), &report_texts);
}
