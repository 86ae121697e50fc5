// What all replies share: the envelope, and adding members to json objects without losing any.
#pragma once

#include "movra_fleet/common/records.h"
#include "scoped.h"

// A json object that is released at the end of its block, unless it was handed on.
void release_reply_object(json_object *object);
using owned_json = scoped<json_object, release_reply_object>;

// Adds a member; the value goes to the object, or is released. 0, or -1 also when the value is NULL.
int reply_add(json_object *object, const char *key, json_object *value);

// Adds a text; 0, or -1 also when the text is NULL.
int reply_add_text(json_object *object, const char *key, const char *text);

// The log texts of a reply's envelope, one for each step that can fail.
struct envelope_texts {
	const char *not_created;
	const char *type;
	const char *reply_to;
	const char *body;
};

// Those of every reply but the error reply.
inline constexpr envelope_texts report_texts = {
		.not_created = "COuld not create JSON message", // kept as it is
		.type = "Could not add 'type' to JSON",
		.reply_to = "Could not add 'reply-to' to JSON",
		.body = "Could not add 'body' to JSON",
};

// Puts a body into an envelope and sends it to the requester. The body is consumed in any case. 0 when the reply was
// handed over, else -1, logged; what happens to the message afterwards is the bus client's to tell.
int reply_send(agent_ctx *ctx, const diag_job *job, json_object *body, const envelope_texts *texts);
