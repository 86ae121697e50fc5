#include "client_events.h"

#include "address.h"
#include "debug.h"
#include "lock.h"

#include <mqtt_protocol.h>

namespace
{

void take_status(bus_client *client, const link_message &message, int64_t now_ms)
{
	const std::string_view status(message.payload, message.length);
	const presence_change change = presence_note(
			&client->presence, message.topic.from, message.topic.to, status, message.properties.left_s, now_ms);
	const scoped<presence_peer, presence_peer_free> gone(change.disconnected);
	if (client->on_presence == nullptr)
		return;
	if (change.connected != nullptr)
		client->on_presence(client->record, change.connected->address, nullptr);
	if (gone)
		client->on_presence(client->record, nullptr, gone->address);
}

address_list destination_of(const bus_topic &topic)
{
	address_list list;
	bool appended = false;
	if (topic.type == TERVBUS_ADDRESS_SPECIAL)
		appended = address_append_special(&list, topic.special);
	else if (topic.type == TERVBUS_ADDRESS_GROUP)
		appended = address_append_group(&list, topic.to.text);
	else
		appended = address_append_unit(&list, topic.to.text);
	return appended ? std::move(list) : nullptr;
}

// Notes the message's id. One that cannot be noted is not taken: it might come again and be taken twice.
bool first_time(bus_client *client, const link_message &message, int64_t now_ms)
{
	if (!message.properties.has_id)
		return true;
	const char *from = message.topic.from.text;
	const message_id_digits id = message_id_text(message.properties.id);
	const seen_verdict verdict = seen_ids_note(&client->seen, from, message.properties.id, now_ms);
	if (verdict == seen_verdict::known)
		debug_text("message %s from %s came again: dropped", id.text, from);
	if (verdict == seen_verdict::no_memory)
		debug_text("message %s from %s dropped: no memory", id.text, from);
	return verdict == seen_verdict::fresh;
}

// The payload ends in a zero byte that is counted, unless it is empty: whoever sent none gets one here.
uint32_t terminate(const link_message &message)
{
	const uint32_t length = message.length;
	if (length > 0 && message.payload[length - 1] == '\0')
		return length;
	message.payload[length] = '\0';
	return length == 0 ? 0 : length + 1;
}

void take_message(bus_client *client, const link_message &message, int64_t now_ms)
{
	const address_list source = address_list_of_sender(message.topic.from.text);
	const address_list destination = destination_of(message.topic);
	if (!source || !destination) {
		debug_text("message from %s dropped: no memory", message.topic.from.text);
		return;
	}
	if (!first_time(client, message, now_ms) || client->on_message == nullptr)
		return;

	tervbus_message told{};
	told.content_type = message.properties.content_type != nullptr ? message.properties.content_type : "";
	told.source = source.get();
	told.destination = destination.get();
	told.length = terminate(message);
	told.data = message.payload;
	client->on_message(client->record, &told);
}

} // namespace

void client_tell_condition(bus_client *client, int condition)
{
	if (condition_changes(&client->conditions, condition) && client->on_connection_status != nullptr)
		client->on_connection_status(client->record, condition);
}

void client_tell_finished(bus_client *client, fifo<outbox_item> finished)
{
	while (outbox_item *next = fifo_pop(&finished)) {
		const scoped<outbox_item, free> item(next);
		{
			const lock_guard guard(&client->mailbox.lock);
			client->mailbox.unfinished--;
		}
		if (client->on_delivered != nullptr)
			client->on_delivered(client->record, item->message, nullptr, item->ok ? 1 : 0);
	}
}

void client_note_acknowledged(void *object, int mid, int reason)
{
	bus_client *client = static_cast<bus_client *>(object);
	if (client->leaving_mid != 0 && mid == client->leaving_mid) {
		client->leaving_acknowledged = true;
		return;
	}
	if (reason != MQTT_RC_SUCCESS && reason < MQTT_RC_UNSPECIFIED)
		debug_text("publish %d: nobody holds the address", mid);
	else if (reason != MQTT_RC_SUCCESS)
		debug_text("publish %d: refused by the broker (%d)", mid, reason);
	outbox_acknowledged(&client->box, mid, reason == MQTT_RC_SUCCESS);
}

void client_take_messages(bus_client *client, int64_t now_ms)
{
	if (client->link == nullptr)
		return;

	fifo<link_message> messages = client->link->messages;
	client->link->messages = {};
	while (link_message *next = fifo_pop(&messages)) {
		const scoped<link_message, link_message_free> message(next);
		if (message->topic.kind == topic_kind::status)
			take_status(client, *message, now_ms);
		else
			take_message(client, *message, now_ms);
	}
}

void client_tell_expired_peers(bus_client *client, int64_t now_ms)
{
	fifo<presence_peer> gone = presence_expire(&client->presence, now_ms);
	while (presence_peer *next = fifo_pop(&gone)) {
		const scoped<presence_peer, presence_peer_free> peer(next);
		if (client->on_presence != nullptr)
			client->on_presence(client->record, nullptr, peer->address);
	}
}
