// The bus client: the connection to the message broker, the node's identity, sending, and the library's callbacks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tervbus.h"

struct mobus_connection;

inline constexpr int32_t MOBUS_STATE_CONNECTED = 0x02; // a peer has been seen since the start
inline constexpr int32_t MOBUS_STATE_DM_CLIENT = 0x04; // the DM-CLIENT is connected

// An incoming message, on the library's thread: the text, its length as the library gives it, the sender's
// address list (all three end with the call) and the context given to mobus_init. The result is ignored.
typedef int (*mobus_message_cb)(const char *text, size_t length, const address_entry *source, void *context);

// Loads the identity from cert_dir (or from node_subdirectory of it, when given) and starts the client. The
// context is borrowed until mobus_deinit. The last argument is ignored. NULL on failure, which has been logged.
mobus_connection *mobus_init(const char *node_subdirectory, const char *cert_dir, const char *broker_url, void *context,
		mobus_message_cb message_callback, const char *extra);

// Stops the client, waits until the library has released it, and frees the connection. NULL is accepted.
void mobus_deinit(mobus_connection *connection);

// The state bits; 0 for NULL. Any thread.
int32_t mobus_get_state(mobus_connection *connection);

// Are all of the bits set? MOBUS_STATE_CONNECTED is always asked for as well.
bool mobus_has_state(mobus_connection *connection, int32_t bits);

// The node's own unit address, borrowed from the connection, or NULL.
const char *mobus_get_node_name(const mobus_connection *connection);

// Sends a copy of the text to one address. Any thread. 0 once the library has taken it, else not 0; every
// failure has been logged.
int mobus_send_message(mobus_connection *connection, const char *message, int address_type, const char *target);

// An address as the log shows it, in new memory that the caller frees, or NULL.
char *mobus_address_to_string(const address_entry *address);
