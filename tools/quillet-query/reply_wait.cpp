#include "reply_wait.h"

#include <cstring>

#include "json_helpers.h"

namespace
{

bool has_text(json_object *object, const char *key, const char *text)
{
	json_object *value = member_of(object, key);
	return json_object_is_type(value, json_type_string) && strcmp(json_object_get_string(value), text) == 0;
}

// A command that was sent has a request time, whatever became of it.
bool no_command_ran(json_object *responses)
{
	for (size_t index = 0; index < json_object_array_length(responses); index++) {
		if (!has_text(json_object_array_get_idx(responses, index), "requested-time", ""))
			return false;
	}
	return true;
}

} // namespace

reply_kind classify_reply(const std::string &text, const std::string &reply_id)
{
	json_pointer document(json_tokener_parse(text.c_str()));
	if (!has_text(document.get(), "reply-to", reply_id.c_str()))
		return reply_kind::other;
	json_object *body = member_of(document.get(), "body");
	if (member_of(body, "error") != nullptr)
		return reply_kind::error;
	json_object *responses = member_of(body, "routine-response");
	if (json_object_is_type(responses, json_type_array) && no_command_ran(responses))
		return reply_kind::nothing_ran;
	return reply_kind::reply;
}

reply_wait reply_wait_begin(const std::string &agent, const std::string &reply_id, int64_t now_ms, int64_t timeout_ms)
{
	reply_wait wait;
	wait.agent = agent;
	wait.reply_id = reply_id;
	wait.deadline_ms = now_ms + timeout_ms;
	return wait;
}

bool reply_wait_take(reply_wait &wait, const std::string &sender, const std::string &text, int64_t now_ms)
{
	const reply_kind kind = sender == wait.agent ? classify_reply(text, wait.reply_id) : reply_kind::other;
	if (kind == reply_kind::other)
		return false;
	wait.answered = true;
	if (kind == reply_kind::nothing_ran)
		wait.deadline_ms = now_ms + error_reply_wait_ms;
	else
		wait.over = true;
	if (kind == reply_kind::error)
		wait.failed = true;
	return true;
}

bool reply_wait_is_over(const reply_wait &wait, int64_t now_ms)
{
	return wait.over || now_ms >= wait.deadline_ms;
}
