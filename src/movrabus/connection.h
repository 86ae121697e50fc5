// What the files of the bus client share: the connection record, the library's entry points, allocation with its log
// lines. For src/movrabus/ only.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "movrabus/movrabus.h"

inline constexpr const char mobus_log_source[] = "movrabus";

// All calls of the bus library go through this one table.
struct tervbus_operations {
	decltype(&::tervbus_chain_address) chain_address;
	decltype(&::tervbus_fini_ll) fini_ll;
	decltype(&::tervbus_free_address) free_address;
	decltype(&::tervbus_get_identity_data) get_identity_data;
	decltype(&::tervbus_init_client) init_client;
	decltype(&::tervbus_init_ll) init_ll;
	decltype(&::tervbus_send_message) send_message;
	decltype(&::tervbus_stop_client) stop_client;
};

inline constexpr tervbus_operations tervbus_ops = {
		.chain_address = tervbus_chain_address,
		.fini_ll = tervbus_fini_ll,
		.free_address = tervbus_free_address,
		.get_identity_data = tervbus_get_identity_data,
		.init_client = tervbus_init_client,
		.init_ll = tervbus_init_ll,
		.send_message = tervbus_send_message,
		.stop_client = tervbus_stop_client,
};

// Zero-filled at birth. client.user points to the record itself once the client has started; it and running are
// written and read with __atomic, the fields above them only before the one is set.
struct mobus_connection {
	tervbus_client client;        // first: the library's view of the record
	void *context;                // borrowed, for the message callback
	char *broker_url;             // owned; the library's until release
	char *node_name;              // owned, or NULL
	char *group_name;             // owned, or NULL
	int32_t state;                // MOBUS_STATE_ bits, guarded by lock
	pthread_mutex_t lock;         // zero-filled is a valid unlocked default mutex on Linux
	int32_t running;              // 1 from the start to the library's release
	int32_t delivery_error_count; // failed deliveries in a row; only the library's thread
	mobus_message_cb message_callback;
};

static_assert(offsetof(mobus_connection, client) == 0);

// Zero-filled memory, or NULL, logged.
void *mobus_zalloc(size_t size);

// A copy that the caller frees; NULL for NULL or when memory is short.
char *mobus_strdup(const char *text);

// A text for "%s", also when there is none.
const char *mobus_shown(const char *text);
