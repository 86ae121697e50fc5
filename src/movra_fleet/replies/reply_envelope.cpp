#include "movra_fleet/replies/reply_envelope.h"

#include "movra_fleet/common/agent_ctx.h"
#include "movra_fleet/common/agent_log.h"

namespace
{

constexpr const char reply_type[] = "movra.quillet-query-update";

}

void release_reply_object(json_object *object)
{
	(void)json_object_put(object); // whether it was the last reference does not matter
}

int reply_add(json_object *object, const char *key, json_object *value)
{
	owned_json owned(value);
	if (!owned || json_object_object_add(object, key, owned.get()) != 0)
		return -1;
	(void)owned.release(); // the object's now
	return 0;
}

int reply_add_text(json_object *object, const char *key, const char *text)
{
	return text != nullptr ? reply_add(object, key, json_object_new_string(text)) : -1;
}

int reply_send(agent_ctx *ctx, const diag_job *job, json_object *body, const envelope_texts *texts)
{
	owned_json owned_body(body);
	owned_json envelope(json_object_new_object());
	if (!envelope) {
		FLEET_ERR("%s", texts->not_created);
		return -1;
	}
	if (reply_add_text(envelope.get(), "type", reply_type) != 0) {
		FLEET_ERR("%s", texts->type);
		return -1;
	}
	if (reply_add_text(envelope.get(), "reply-to", job->reply_id) != 0) {
		FLEET_ERR("%s", texts->reply_to);
		return -1;
	}
	if (reply_add(envelope.get(), "body", owned_body.release()) != 0) {
		FLEET_ERR("%s", texts->body);
		return -1;
	}
	agent_send_reply(ctx, json_object_get_string(envelope.get()), job->source_address);
	return 0;
}
