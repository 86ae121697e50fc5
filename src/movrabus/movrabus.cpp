// The connection: made and taken down on the main thread, asked for its state from any.
#include "movrabus/movrabus.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "held_lock.h"
#include "logger.h"
#include "movrabus/callbacks.h"
#include "movrabus/connection.h"
#include "movrabus/identity.h"
#include "scoped.h"
#include "tervUtils.h"

namespace
{

constexpr useconds_t release_poll_us = 10'000;

mobus_connection *new_connection(const char *broker_url, mobus_message_cb message_callback)
{
	mobus_connection *connection = static_cast<mobus_connection *>(mobus_zalloc(sizeof(mobus_connection)));
	if (connection == nullptr) {
		LOG_AT(LOG_ERR, mobus_log_source, "memmory allocation failed"); // spelling kept as it is
		return nullptr;
	}
	tervbus_setup setup = {};
	setup.debug = on_library_debug;
	(void)tervbus_ops.init_ll(&setup); // a library that did not start refuses the client

	connection->broker_url = mobus_strdup(broker_url);
	connection->client.mode = 1;
	connection->client.on_release = on_release;
	connection->client.on_presence = on_presence;
	connection->client.on_connection_status = on_connection_status;
	connection->client.on_delivered = on_delivered;
	connection->client.on_message = on_message;
	connection->message_callback = message_callback;
	return connection;
}

char *identity_directory(const char *node_subdirectory, const char *cert_dir)
{
	if (node_subdirectory == nullptr)
		return mobus_strdup(cert_dir);
	return string_format_alloc("%s/%s", cert_dir, node_subdirectory);
}

// Without memory for the directory's name the client goes on without an identity, which is the library's to refuse.
int load_own_names(mobus_connection *connection, const char *node_subdirectory, const char *cert_dir)
{
	scoped<char, free> directory(identity_directory(node_subdirectory, cert_dir));
	if (!directory)
		return 0;

	tervbus_identity *identity = &connection->client.identity;
	if (mobus_load_identity(identity, directory.get()) != 0) {
		LOG_AT(LOG_ERR, mobus_log_source, "Failed to load identity certificate from %s", directory.get());
		return -1;
	}
	connection->node_name = mobus_identity_lookup(identity, TERVBUS_ADDRESS_UNIT);
	connection->group_name = mobus_identity_lookup(identity, TERVBUS_ADDRESS_GROUP);
	LOG_AT(LOG_INFO, mobus_log_source, "node=%s, cert_dir=%s", mobus_shown(connection->node_name), cert_dir);
	return 0;
}

void log_start_failure()
{
	LOG_AT(LOG_ERR, mobus_log_source, "Failed to init tervbus client err=%d.", -1); // never the library's code
}

mobus_connection *start_connection(const char *node_subdirectory, const char *cert_dir, const char *broker_url,
		void *context, mobus_message_cb message_callback)
{
	if (cert_dir == nullptr) {
		LOG_AT(LOG_ERR, mobus_log_source, "cert_dir is NULL");
		return nullptr;
	}
	if (broker_url == nullptr) {
		LOG_AT(LOG_ERR, mobus_log_source, "broker_url is NULL");
		return nullptr;
	}
	scoped<mobus_connection, mobus_deinit> connection(new_connection(broker_url, message_callback));
	if (!connection || connection->broker_url == nullptr)
		return nullptr;
	if (load_own_names(connection.get(), node_subdirectory, cert_dir) != 0)
		return nullptr;
	if (tervbus_ops.init_client(&connection->client, connection->broker_url) != 0) {
		log_start_failure();
		return nullptr;
	}

	// The library's thread runs by now and takes the user pointer as the sign that the record is complete.
	connection->context = context;
	__atomic_store_n(&connection->client.user, connection.get(), __ATOMIC_RELEASE);
	__atomic_store_n(&connection->running, 1, __ATOMIC_RELEASE);
	return connection.release();
}

}

mobus_connection *mobus_init(const char *node_subdirectory, const char *cert_dir, const char *broker_url, void *context,
		mobus_message_cb message_callback, const char *)
{
	mobus_connection *connection = start_connection(node_subdirectory, cert_dir, broker_url, context, message_callback);
	if (connection == nullptr)
		log_start_failure(); // the second line of a client that was refused
	return connection;
}

void mobus_deinit(mobus_connection *connection)
{
	if (connection == nullptr)
		return;
	(void)tervbus_ops.stop_client(&connection->client); // what counts is the release
	do
		usleep(release_poll_us);
	while (__atomic_load_n(&connection->running, __ATOMIC_ACQUIRE) != 0);

	release_identity(&connection->client.identity);
	free(connection->node_name);
	free(connection->group_name);
	free(connection->broker_url);
	(void)tervbus_ops.fini_ll(); // nothing is left to do about a failure
	free(connection);
}

int32_t mobus_get_state(mobus_connection *connection)
{
	if (connection == nullptr)
		return 0;
	held_lock lock = hold(&connection->lock);
	return connection->state;
}

bool mobus_has_state(mobus_connection *connection, int32_t bits)
{
	int32_t wanted = (bits & 0xFF) | MOBUS_STATE_CONNECTED;
	return (mobus_get_state(connection) & wanted) == wanted;
}

const char *mobus_get_node_name(const mobus_connection *connection)
{
	return connection != nullptr ? connection->node_name : nullptr;
}

void *mobus_zalloc(size_t size)
{
	void *memory = calloc(1, size);
	if (memory == nullptr)
		LOG_AT(LOG_ERR, mobus_log_source, "Failed to malloc %ld bytes", static_cast<long>(size));
	return memory;
}

char *mobus_strdup(const char *text)
{
	if (text == nullptr)
		return nullptr;
	size_t size = strlen(text) + 1;
	char *copy = static_cast<char *>(mobus_zalloc(size));
	if (copy != nullptr)
		memcpy(copy, text, size);
	return copy;
}

const char *mobus_shown(const char *text)
{
	return text != nullptr ? text : "(null)";
}
