#include "movrabus/callbacks.h"

#include <cstdlib>

#include "held_lock.h"
#include "logger.h"
#include "movrabus/connection.h"
#include "movrabus/messages.h"
#include "scoped.h"

namespace
{

struct condition_row {
	int condition;
	const char *text;
	log_level level;
};

constexpr condition_row conditions[] = {
		{TERVBUS_CONDITION_RUNNING, "running", LOG_INFO},
		{TERVBUS_CONDITION_START, "start", LOG_INFO},
		{TERVBUS_CONDITION_RESOLUTION_FAILED, "resolution failed", LOG_ERR},
		{TERVBUS_CONDITION_CONNECTION_FAILED, "connection failed", LOG_ERR},
		{TERVBUS_CONDITION_REGISTRATION_FAILED, "registration failed", LOG_ERR},
		{TERVBUS_CONDITION_CONNECTION_BROKE, "connection broke", LOG_ERR},
		{TERVBUS_CONDITION_CONNECTION_ABORTED, "connection aborted", LOG_ERR},
		{TERVBUS_CONDITION_STOPPED, "client stopped", LOG_ERR},
};
static_assert(sizeof conditions / sizeof *conditions == 8);

constexpr int32_t logged_delivery_errors = 4; // of a run; the later ones stay silent until one succeeds

// NULL until mobus_init has completed the record.
mobus_connection *connection_of(tervbus_client *client)
{
	if (client == nullptr)
		return nullptr;
	return static_cast<mobus_connection *>(__atomic_load_n(&client->user, __ATOMIC_ACQUIRE));
}

bool is_dm_client(const address_entry *entry)
{
	return entry->type == TERVBUS_ADDRESS_SPECIAL && entry->value.number == 0;
}

// The connection's lock is held. That a peer has been seen is never taken back.
void note_connected(mobus_connection *connection, const address_entry *entry)
{
	scoped<char, free> text(mobus_address_to_string(entry));
	if (!text)
		return;
	if (is_dm_client(entry))
		connection->state |= MOBUS_STATE_DM_CLIENT;
	connection->state |= MOBUS_STATE_CONNECTED;
	LOG_AT(LOG_INFO, mobus_log_source, "Connected: %s", text.get());
}

// The connection's lock is held.
void note_disconnected(mobus_connection *connection, const address_entry *entry)
{
	scoped<char, free> text(mobus_address_to_string(entry));
	if (!text)
		return;
	if (is_dm_client(entry))
		connection->state &= ~MOBUS_STATE_DM_CLIENT;
	LOG_AT(LOG_INFO, mobus_log_source, "Disconnected: %s", text.get());
}

void note_peers(mobus_connection *connection, const address_entry *connected, const address_entry *disconnected)
{
	held_lock lock = hold(&connection->lock);
	for (const address_entry *entry = connected; entry != nullptr; entry = entry->next)
		note_connected(connection, entry);
	for (const address_entry *entry = disconnected; entry != nullptr; entry = entry->next)
		note_disconnected(connection, entry);
	LOG_AT(LOG_INFO, mobus_log_source, "Movra Bus state: 0x%02x", static_cast<unsigned>(connection->state));
}

// The place for reacting to peers; nothing does so far.
void presence_hook(void *, const address_entry *, const address_entry *)
{
}

}

void on_connection_status(tervbus_client *, int condition)
{
	for (const condition_row &row : conditions) {
		if (row.condition != condition)
			continue;
		const char *format = row.level == LOG_INFO ? "Movra Bus connection: %s" : "Movra Bus error: %s";
		LOG_AT(row.level, mobus_log_source, format, row.text);
		return;
	}
	LOG_AT(LOG_ERR, mobus_log_source, "Movra Bus error: condition=%d", condition);
}

void on_delivered(tervbus_client *client, tervbus_message *message, void *, int ok)
{
	mobus_connection *connection = connection_of(client);
	if (connection == nullptr || message == nullptr)
		return;
	if (ok != 0) {
		LOG_AT(LOG_D2BG, mobus_log_source, "BUS ACK %05x %s", message->id, message->data);
		connection->delivery_error_count = 0;
	} else if (connection->delivery_error_count < logged_delivery_errors) {
		LOG_AT(LOG_WARN, mobus_log_source, "BUS ERR %05x %s", message->id, message->data);
		connection->delivery_error_count += 1;
	}
	sent_message_drop(message);
}

void on_presence(tervbus_client *client, address_entry *connected, address_entry *disconnected)
{
	mobus_connection *connection = connection_of(client);
	if (connection == nullptr)
		return;
	note_peers(connection, connected, disconnected);
	presence_hook(connection->context, connected, disconnected);
}

void on_message(tervbus_client *client, tervbus_message *message)
{
	if (client == nullptr) {
		LOG_AT(LOG_ERR, mobus_log_source, "client is NULL");
		return;
	}
	if (message == nullptr) {
		LOG_AT(LOG_ERR, mobus_log_source, "msg is NULL");
		return;
	}
	mobus_connection *connection = connection_of(client);
	if (connection != nullptr && connection->message_callback != nullptr)
		(void)connection->message_callback(message->data, message->length, message->source, connection->context);
}

// From the store on, the record may be gone: the main thread waits for it.
void on_release(tervbus_client *client)
{
	mobus_connection *connection = connection_of(client);
	if (connection != nullptr)
		__atomic_store_n(&connection->running, 0, __ATOMIC_RELEASE);
}

void on_library_debug(const char *text)
{
	LOG_AT(LOG_DBG, mobus_log_source, "%s\n", mobus_shown(text));
}
