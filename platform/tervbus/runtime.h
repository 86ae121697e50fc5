// The library's one thread and the clients that it drives. Any thread may call all of it.
#pragma once

#include "tervbus.h"

#include "debug.h"

// Counts the users of the library; the first one starts the thread, the last one stops what clients are left and joins
// it. 0 or -1; ending fails on the bus thread itself.
int runtime_begin(debug_sink sink);
int runtime_end();

int runtime_start_client(tervbus_client *record, const char *url);
int runtime_stop_client(const tervbus_client *record);
int runtime_send(const tervbus_client *record, tervbus_message *message);
