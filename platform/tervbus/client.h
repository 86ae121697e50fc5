// A started client: its identity, its way from link to link, and what it owes to the callbacks. One record per
// tervbus_client, found by that record's address; the caller's record itself is only handed back to the callbacks.
//
//   pausing ─▶ resolving ─▶ connecting ─▶ running ─▶ (link lost) pausing
//   any, when stopped: draining ─▶ leaving ─▶ disconnecting ─▶ released
#pragma once

#include "tervbus.h"

#include "broker_url.h"
#include "conditions.h"
#include "mqtt_link.h"
#include "outbox.h"
#include "presence.h"
#include "resolver.h"
#include "seen_ids.h"

enum class client_state { pausing, resolving, connecting, running, draining, leaving, disconnecting, released };

// What other threads hand over. Guarded by lock.
struct client_mailbox {
	pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
	fifo<outbox_item> sends;
	size_t unfinished = 0; // messages accepted and not yet told as delivered
	uint32_t last_id = 0;
	bool stop = false; // from here on no send is accepted
};

struct bus_client {
	int holders = 0; // atomic

	// Set before the bus thread sees the client, and then left as it is.
	tervbus_client *record = nullptr;
	void (*on_release)(tervbus_client *) = nullptr;
	void (*on_presence)(tervbus_client *, address_entry *, address_entry *) = nullptr;
	void (*on_connection_status)(tervbus_client *, int) = nullptr;
	void (*on_delivered)(tervbus_client *, tervbus_message *, void *, int) = nullptr;
	void (*on_message)(tervbus_client *, tervbus_message *) = nullptr;
	broker_url url;
	bus_names names;
	tls_report report;
	SSL_CTX *context = nullptr; // owned
	link_settings settings;
	wake_event *wake = nullptr; // held

	client_mailbox mailbox;

	// The bus thread's.
	client_state state = client_state::pausing;
	int64_t deadline_ms = 0; // of the state
	int64_t running_since_ms = 0;
	int short_runs = 0;                // in a row: the broker closed a connection without a word, soon after it ran
	int64_t status_due_ms = INT64_MAX; // the next "on"
	int leaving_mid = 0;               // the "off" of a stop
	bool leaving_acknowledged = false;
	mqtt_link *link = nullptr;
	resolve_request *resolving = nullptr;
	resolve_answer resolved;
	size_t addresses_tried = 0; // of the resolved ones, in this attempt
	condition_filter conditions;
	backoff wait;
	outbox box;
	seen_ids seen;
	presence_table presence;
};

// With one holder. NULL, with the reason, a constant text, in *why, when memory is short or the URL or the identity
// cannot be used. Any thread.
bus_client *client_new(tervbus_client *record, const char *url, wake_event *wake, const char **why);

// Any thread.
bus_client *client_hold(bus_client *client);

// The last holder's release frees it. NULL is accepted. Any thread.
void client_release(bus_client *client);

// Accepts a message for sending; 0, or -1 with nothing done. Any thread.
int client_send(bus_client *client, tervbus_message *message);

// Any thread.
void client_stop(bus_client *client);

// The bus thread: does what is due and calls the callbacks, all but on_release. Once the state is released, the owner
// forgets the client and calls that.
void client_step(bus_client *client, short ready, int64_t now_ms);

pollfd client_poll(const bus_client *client);
int64_t client_deadline(bus_client *client, int64_t now_ms);
