#include "unsaved.h"

#include "../mqtt_properties.h"
#include "../record.h"

#include <mosquitto_broker.h>
#include <mosquitto_plugin.h>

#include <cstdlib>
#include <ctime>
#include <string_view>

namespace
{

constexpr uint32_t lifetime_s = 60; // of a message whose publish does not say

constexpr std::string_view inboxes[] = {"movra/v1/ua/", "movra/v1/grp/", "movra/v1/special/"};
static_assert(std::size(inboxes) == 3);

bool to_an_inbox(std::string_view topic)
{
	for (const std::string_view inbox : inboxes)
		if (topic.substr(0, inbox.size()) == inbox)
			return true;
	return false;
}

// The properties are the broker's from here on.
void publish_again(const journal_message &message, int64_t now_s)
{
	mosquitto_property *properties = nullptr;
	const char *content_type = message.content_type.empty() ? nullptr : message.content_type.c_str();
	const auto left_s = static_cast<uint32_t>(message.ends_s - now_s);
	if (mqtt_properties_make(&properties, content_type, message.id.c_str(), left_s) == MOSQ_ERR_SUCCESS &&
			mosquitto_broker_publish_copy(nullptr, message.topic.c_str(), static_cast<int>(message.payload.size()),
					message.payload.data(), 1, false, properties) == MOSQ_ERR_SUCCESS)
		return;
	mosquitto_log_printf(MOSQ_LOG_ERR, "quillet: message %s is lost", message.id.c_str());
}

// Once until the broker has saved: with a full disk it would be a line for each message.
void tell_trouble(journal *notes, const std::string &why)
{
	if (!notes->trouble_told)
		mosquitto_log_printf(MOSQ_LOG_WARNING,
				"quillet: unsaved.journal: %s; what the broker takes from now on is lost when it is killed before it "
				"saves",
				why.c_str());
	notes->trouble_told = true;
}

} // namespace

bool unsaved_open(journal *notes, const std::string &folder, std::string *why)
{
	const int64_t now_s = time(nullptr);
	std::vector<journal_message> unsaved;
	if (!journal_open(notes, folder, now_s, &unsaved, why))
		return false;
	for (const journal_message &message : unsaved)
		publish_again(message, now_s);
	if (!unsaved.empty())
		mosquitto_log_printf(
				MOSQ_LOG_NOTICE, "quillet: %zu messages that the last broker had not saved", unsaved.size());
	return true;
}

// Without an id nobody could tell that it has come before.
int unsaved_note(int, void *event, void *user)
{
	const auto *publish = static_cast<const mosquitto_evt_message *>(event);
	if (publish->qos == 0 || publish->retain || !to_an_inbox(publish->topic))
		return MOSQ_ERR_SUCCESS;

	message_properties properties;
	if (!mqtt_properties_read(publish->properties, &properties))
		return MOSQ_ERR_SUCCESS;
	const scoped<char, free> content_type(properties.content_type);
	if (!properties.has_id)
		return MOSQ_ERR_SUCCESS;
	journal_message message;
	message.id = message_id_text(properties.id).text;
	if (content_type)
		message.content_type = content_type.get();
	message.topic = publish->topic;
	message.payload.assign(static_cast<const char *>(publish->payload), publish->payloadlen);
	message.noted_s = time(nullptr);
	message.ends_s = message.noted_s + (properties.left_s == UINT32_MAX ? lifetime_s : properties.left_s);
	auto *notes = static_cast<journal *>(user);
	std::string why;
	if (!journal_note(notes, message, &why)) // then the broker's own file has to do
		tell_trouble(notes, why);
	return MOSQ_ERR_SUCCESS;
}
