#include "movrabus/messages.h"

#include <cstdlib>
#include <cstring>

#include "logger.h"
#include "movrabus/connection.h"
#include "scoped.h"
#include "tervUtils.h"

namespace
{

constexpr const char json_content_type[] = "application/json";

// What stands behind the message that the library is given.
struct sent_message {
	int32_t holders; // by __atomic
	tervbus_message message;
};

sent_message *sent_message_of(tervbus_message *message)
{
	// The analyzer does not follow the count of holders. NOLINTNEXTLINE(clang-analyzer-unix.Malloc)
	return reinterpret_cast<sent_message *>(reinterpret_cast<char *>(message) - offsetof(sent_message, message));
}

void sent_message_free(sent_message *sent)
{
	if (sent == nullptr)
		return;
	free(sent->message.data);
	free(sent);
}

sent_message *sent_message_new(const char *text)
{
	scoped<sent_message, sent_message_free> sent(static_cast<sent_message *>(mobus_zalloc(sizeof(sent_message))));
	if (sent)
		sent->message.data = mobus_strdup(text);
	if (!sent || sent->message.data == nullptr) {
		LOG_AT(LOG_ERR, mobus_log_source, "memory allocation failed");
		return nullptr;
	}
	sent->holders = 1;
	sent->message.content_type = json_content_type;
	sent->message.length = static_cast<uint32_t>(strlen(text) + 1); // the zero byte travels too
	return sent.release();
}

// Two holders from before the call: the delivery may come before it has returned.
int hand_over(mobus_connection *connection, sent_message *sent, const char *target)
{
	__atomic_store_n(&sent->holders, 2, __ATOMIC_RELEASE);
	int status = tervbus_ops.send_message(&connection->client, &sent->message, 0);
	LOG_AT(LOG_INFO, mobus_log_source, "mobus_send_message status=%d, target=%s, id=%05x, msg=%s", status,
			mobus_shown(target), sent->message.id, sent->message.data);
	if (status != 0) {
		LOG_AT(LOG_ERR, mobus_log_source, "Failed to send message over Movra Bus\n");
		sent_message_drop(&sent->message); // the library's hold, which it did not take
	}
	return status;
}

}

int mobus_send_message(mobus_connection *connection, const char *message, int address_type, const char *target)
{
	if (connection == nullptr) {
		LOG_AT(LOG_ERR, mobus_log_source, "Movra Bus connection is NULL");
		return -1;
	}
	if (message == nullptr) {
		LOG_AT(LOG_ERR, mobus_log_source, "message is NULL");
		return -1;
	}
	sent_message *sent = sent_message_new(message);
	if (sent == nullptr)
		return -1;

	int status = tervbus_ops.chain_address(&sent->message.destination, address_type, target);
	if (status != 0)
		LOG_AT(LOG_ERR, mobus_log_source, "Failed to get address for %s\n", mobus_shown(target));
	else
		status = hand_over(connection, sent, target);
	sent_message_drop(&sent->message); // this call's hold
	return status;
}

void sent_message_drop(tervbus_message *message)
{
	sent_message *sent = sent_message_of(message);
	if (__atomic_sub_fetch(&sent->holders, 1, __ATOMIC_ACQ_REL) != 0)
		return;
	(void)tervbus_ops.free_address(message->destination, 1); // frees, or there is nothing to be done
	sent_message_free(sent);
}

char *mobus_address_to_string(const address_entry *address)
{
	if (address == nullptr)
		return nullptr;
	if (address->type == TERVBUS_ADDRESS_UNIT)
		return string_format_alloc("<UA: %s> ", mobus_shown(address->value.text)); // trailing blank kept as it is
	if (address->type == TERVBUS_ADDRESS_GROUP)
		return string_format_alloc("<GRP: %s>", mobus_shown(address->value.text));
	if (address->type != TERVBUS_ADDRESS_SPECIAL)
		return string_format_alloc("<UNKNOWN TYPE %d>", static_cast<int>(address->type));
	if (address->value.number == 0)
		return string_format_alloc("<DM-CLIENT>");
	return string_format_alloc("<UNKNOWN SPECIAL %d>", static_cast<int>(address->value.number));
}
