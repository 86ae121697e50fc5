// The functions that the bus library calls, all on its own thread. Until the client's user pointer is set, only the
// connection status and the debug text have an effect.
#pragma once

#include "tervbus.h"

void on_connection_status(tervbus_client *client, int condition);
void on_delivered(tervbus_client *client, tervbus_message *message, void *spare, int ok);
void on_presence(tervbus_client *client, address_entry *connected, address_entry *disconnected);
void on_message(tervbus_client *client, tervbus_message *message);
void on_release(tervbus_client *client);
void on_library_debug(const char *text);
