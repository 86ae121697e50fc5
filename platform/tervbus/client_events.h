// From what happened to the client's callbacks. The bus thread; no lock is held while a callback runs.
#pragma once

#include "client.h"

// Tells the condition unless it was the last one told.
void client_tell_condition(bus_client *client, int condition);

// The end of sends: on_delivered for each. The items are taken.
void client_tell_finished(bus_client *client, fifo<outbox_item> finished);

// The broker's answer to a publish, as the link tells it.
void client_note_acknowledged(void *client, int mid, int reason);

// Takes the messages that have come over the link and tells them: messages and peers.
void client_take_messages(bus_client *client, int64_t now_ms);

// Tells the peers that were not refreshed in time.
void client_tell_expired_peers(bus_client *client, int64_t now_ms);
