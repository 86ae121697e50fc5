#include "client.h"

#include "address.h"
#include "bus_clock.h"
#include "client_events.h"
#include "debug.h"
#include "lock.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace
{

constexpr int64_t resolve_timeout_ms = 10'000;
constexpr int64_t drain_ms = 1000;
constexpr int64_t leave_ms = 200;
constexpr int64_t disconnect_ms = 200;
constexpr uint32_t incoming_default = 1u << 20;
constexpr int short_runs_suspicious = 2;

void enter(bus_client *client, client_state state, int64_t deadline_ms)
{
	client->state = state;
	client->deadline_ms = deadline_ms;
}

bool link_runs(const bus_client *client)
{
	return client->link != nullptr && client->link->phase == link_phase::running;
}

void drop_link(bus_client *client)
{
	mqtt_link_close(client->link);
	client->link = nullptr;
	client->status_due_ms = INT64_MAX;
	outbox_link_lost(&client->box);
}

uint32_t random_number()
{
	uint32_t number = 0;
	(void)RAND_bytes(reinterpret_cast<unsigned char *>(&number), sizeof(number)); // without: no jitter
	return number;
}

void pause_and_retry(bus_client *client, int64_t now_ms)
{
	const int64_t pause_ms = backoff_take(&client->wait, random_number());
	debug_text("next attempt in %d ms", static_cast<int>(pause_ms));
	enter(client, client_state::pausing, now_ms + pause_ms);
}

// A broker's alert says little of what it dislikes, and a reset can swallow it.
void tell_own_fault(const bus_client *client)
{
	const char *fault = identity_fault(client->context);
	if (fault != nullptr)
		debug_text("the broker has reason to refuse %s: %s", client->names.unit.text, fault);
}

void fail_attempt(bus_client *client, int condition, const char *reason, int64_t now_ms)
{
	debug_text("no connection to %s:%u: %s", client->url.host, client->url.port, reason);
	if (condition == TERVBUS_CONDITION_REGISTRATION_FAILED)
		tell_own_fault(client);
	client_tell_condition(client, condition);
	pause_and_retry(client, now_ms);
}

void start_resolving(bus_client *client, int64_t now_ms)
{
	client->resolving = resolve_start(client->url.host, client->wake);
	if (client->resolving == nullptr) {
		fail_attempt(client, TERVBUS_CONDITION_RESOLUTION_FAILED, "no memory or thread to resolve the name", now_ms);
		return;
	}
	enter(client, client_state::resolving, now_ms + resolve_timeout_ms);
}

void connect_next(bus_client *client, int64_t now_ms)
{
	const char *address = client->resolved.addresses[client->addresses_tried++].text;
	debug_text("connecting to %s port %u", address, client->url.port);
	client->link = mqtt_link_open(&client->settings, address, client->url.port, now_ms);
	if (client->link == nullptr) {
		fail_attempt(client, TERVBUS_CONDITION_CONNECTION_FAILED, "no memory", now_ms);
		return;
	}
	enter(client, client_state::connecting, INT64_MAX);
}

void stop_resolving(bus_client *client)
{
	resolve_release(client->resolving);
	client->resolving = nullptr;
}

// The helper cannot be interrupted, and a second one would wait no better: the condition is told and the wait goes on.
void keep_waiting_for_name(bus_client *client, int64_t now_ms)
{
	if (now_ms < client->deadline_ms)
		return;
	client->deadline_ms = INT64_MAX;
	client_tell_condition(client, TERVBUS_CONDITION_RESOLUTION_FAILED);
}

void finish_resolving(bus_client *client, int64_t now_ms)
{
	if (!resolve_finished(client->resolving, &client->resolved)) {
		keep_waiting_for_name(client, now_ms);
		return;
	}
	stop_resolving(client);
	client->addresses_tried = 0;
	if (client->resolved.count == 0) {
		fail_attempt(client, TERVBUS_CONDITION_RESOLUTION_FAILED, client->resolved.error, now_ms);
		return;
	}
	connect_next(client, now_ms);
}

// No status stays for ever: after an "off" for so long, the "on" before it would have run out as well.
void publish_status(bus_client *client, const char *status, int *mid)
{
	const topic_text topic = topic_of_status(client->names);
	const link_publish publish{
			topic.text, status, static_cast<uint32_t>(strlen(status)), nullptr, nullptr, status_expiry_s, true};
	if (mqtt_link_publish(client->link, publish, mid) != 0)
		debug_text("own status not published");
}

void start_running(bus_client *client, int64_t now_ms)
{
	enter(client, client_state::running, INT64_MAX);
	client->running_since_ms = now_ms;
	client->status_due_ms = now_ms;
	client->addresses_tried = client->resolved.count;
	client_tell_condition(client, TERVBUS_CONDITION_RUNNING);
}

void refresh_status(bus_client *client, int64_t now_ms)
{
	int mid = 0;
	if (!link_runs(client) || (now_ms < client->status_due_ms && !client->link->silent_too_long))
		return;
	client->link->silent_too_long = false;
	publish_status(client, "on", &mid);
	client->status_due_ms = now_ms + status_refresh_ms;
}

void publish_waiting(bus_client *client, int64_t now_ms)
{
	while (link_runs(client)) {
		const outbox_publish next = outbox_next(&client->box, now_ms);
		if (next.leg == nullptr)
			return;
		const tervbus_message *message = next.item->message;
		const topic_text topic = topic_of_address(next.leg->to, client->names.unit.text);
		const message_id_digits id = message_id_text(next.item->id);
		const link_publish publish{
				topic.text, message->data, message->length, message->content_type, id.text, next.left_s, false};
		int mid = 0;
		if (mqtt_link_publish(client->link, publish, &mid) == 0)
			outbox_published(&client->box, next.leg, mid);
		else
			outbox_refused(next.leg);
	}
}

// Some brokers do not say that another client has taken the session: they close, and let this one in again at once.
void note_short_run(bus_client *client, int condition, int64_t ran_ms)
{
	const bool is_short = ran_ms < backoff_stable_ms && condition == TERVBUS_CONDITION_CONNECTION_BROKE;
	client->short_runs = is_short ? client->short_runs + 1 : 0;
	if (client->short_runs >= short_runs_suspicious)
		debug_text("closed by the broker %d ms after the connection, %d times in a row: does another process use the "
				   "identity of %s?",
				static_cast<int>(ran_ms), client->short_runs, client->names.unit.text);
}

void link_lost(bus_client *client, int64_t now_ms)
{
	const int condition = client->link->condition;
	const link_reason reason = client->link->reason;
	const bool ran = client->state == client_state::running;
	const bool others_left =
			condition == TERVBUS_CONDITION_CONNECTION_FAILED && client->addresses_tried < client->resolved.count;
	drop_link(client);

	if (ran) {
		const int64_t ran_ms = now_ms - client->running_since_ms;
		backoff_note_run(&client->wait, ran_ms, condition == TERVBUS_CONDITION_CONNECTION_ABORTED);
		note_short_run(client, condition, ran_ms);
	}
	if (others_left) {
		debug_text("no connection: %s", reason.text);
		connect_next(client, now_ms);
		return;
	}
	fail_attempt(client, condition, reason.text, now_ms);
}

// Nothing is waited for that a stopped client cannot have: without a running link it goes at once.
void begin_stop(bus_client *client, int64_t now_ms)
{
	stop_resolving(client);
	enter(client, client_state::draining, link_runs(client) ? now_ms + drain_ms : now_ms);
}

// The will is not sent after a proper goodbye: the status says so first.
void begin_leaving(bus_client *client, int64_t now_ms)
{
	client->status_due_ms = INT64_MAX;
	enter(client, client_state::leaving, now_ms + leave_ms);
	publish_status(client, "off", &client->leaving_mid);
}

void begin_disconnecting(bus_client *client, int64_t now_ms)
{
	mqtt_link_disconnect(client->link);
	enter(client, client_state::disconnecting, now_ms + disconnect_ms);
}

void release(bus_client *client)
{
	drop_link(client);
	client_tell_finished(client, outbox_take_all(&client->box));
	client_tell_condition(client, TERVBUS_CONDITION_STOPPED);
	client->state = client_state::released;
}

void step_stopping(bus_client *client, int64_t now_ms)
{
	if (!link_runs(client)) {
		release(client);
		return;
	}
	const bool due = now_ms >= client->deadline_ms;
	if (client->state == client_state::draining && (due || client->box.items.first == nullptr))
		begin_leaving(client, now_ms);
	else if (client->state == client_state::leaving && (due || client->leaving_acknowledged))
		begin_disconnecting(client, now_ms);
	else if (client->state == client_state::disconnecting && due)
		release(client);
}

void step_connection(bus_client *client, int64_t now_ms)
{
	if (client->state == client_state::pausing && now_ms >= client->deadline_ms)
		start_resolving(client, now_ms);
	if (client->state == client_state::resolving)
		finish_resolving(client, now_ms);
	if (client->state == client_state::connecting && link_runs(client))
		start_running(client, now_ms);
	if (client->link != nullptr && client->link->phase == link_phase::lost)
		link_lost(client, now_ms);
}

bool take_mailbox(bus_client *client)
{
	const lock_guard guard(&client->mailbox.lock);
	fifo_append(&client->box.items, &client->mailbox.sends);
	return client->mailbox.stop;
}

uint32_t incoming_limit()
{
	const char *text = getenv("TERVBUS_MAX_INCOMING");
	if (text == nullptr)
		return incoming_default;
	char *end = nullptr;
	const unsigned long long value = strtoull(text, &end, 10);
	if (end == text || *end != '\0' || value == 0 || value > outgoing_max) {
		debug_text("TERVBUS_MAX_INCOMING is not a number of 1 to %u: %s", outgoing_max, text);
		return incoming_default;
	}
	return static_cast<uint32_t>(value);
}

bool message_usable(const tervbus_message *message)
{
	if (message == nullptr || message->destination == nullptr || message->length > outgoing_max)
		return false;
	if (message->data == nullptr && message->length > 0)
		return false;
	for (const address_entry *entry = message->destination; entry != nullptr; entry = entry->next)
		if (!address_usable(entry))
			return false;
	return true;
}

int take_identity(bus_client *client, const tervbus_identity *identity, const char **why)
{
	if (!identity_names(identity, &client->names, why))
		return -1;
	client->context = identity_tls_context(identity, client->url.host, &client->report, why).release();
	return client->context != nullptr ? 0 : -1;
}

void take_callbacks(bus_client *client, tervbus_client *record)
{
	client->record = record;
	client->on_release = record->on_release;
	client->on_presence = record->on_presence;
	client->on_connection_status = record->on_connection_status;
	client->on_delivered = record->on_delivered;
	client->on_message = record->on_message;
}

// Puts the message into the mailbox; false when the client takes none any more or has too many.
bool accept(bus_client *client, outbox_item *item)
{
	const lock_guard guard(&client->mailbox.lock);
	client_mailbox &mailbox = client->mailbox;
	if (mailbox.stop || mailbox.unfinished >= outbox_waiting_max)
		return false;
	mailbox.last_id = short_id_next(mailbox.last_id);
	item->message->id = mailbox.last_id;
	mailbox.unfinished++;
	fifo_push(&mailbox.sends, item);
	return true;
}

} // namespace

bus_client *client_new(tervbus_client *record, const char *url, wake_event *wake, const char **why)
{
	scoped<bus_client, client_release> client(record_new<bus_client>());
	*why = "no memory";
	if (!client)
		return nullptr;
	client->holders = 1;
	if (!broker_url_parse(url, &client->url)) {
		*why = "no usable broker URL";
		return nullptr;
	}
	if (take_identity(client.get(), &record->identity, why) != 0)
		return nullptr;

	take_callbacks(client.get(), record);
	client->settings = {
			client->names, client->context, &client->report, incoming_limit(), client_note_acknowledged, client.get()};
	client->presence.own_unit = client->names.unit.text;
	client->wake = wake_event_hold(wake);
	return client.release();
}

bus_client *client_hold(bus_client *client)
{
	__atomic_fetch_add(&client->holders, 1, __ATOMIC_RELAXED);
	return client;
}

void client_release(bus_client *client)
{
	if (client == nullptr || __atomic_fetch_sub(&client->holders, 1, __ATOMIC_ACQ_REL) > 1)
		return;
	mqtt_link_close(client->link);
	resolve_release(client->resolving);
	seen_ids_clear(&client->seen);
	presence_clear(&client->presence);
	SSL_CTX_free(client->context);
	wake_event_release(client->wake);
	free(client);
}

int client_send(bus_client *client, tervbus_message *message)
{
	message_id id;
	if (!message_usable(message) || !message_id_new(&id))
		return -1;
	outbox_item *item = outbox_item_new(message, id, bus_now_ms());
	if (item == nullptr)
		return -1;
	if (!accept(client, item)) {
		free(item);
		return -1;
	}
	// From here on the message may be finished and freed by its owner already.
	wake_event_set(client->wake);
	return 0;
}

void client_stop(bus_client *client)
{
	{
		const lock_guard guard(&client->mailbox.lock);
		client->mailbox.stop = true;
	}
	wake_event_set(client->wake);
}

void client_step(bus_client *client, short ready, int64_t now_ms)
{
	if (client->conditions.last < 0)
		client_tell_condition(client, TERVBUS_CONDITION_START);

	if (client->link != nullptr)
		mqtt_link_step(client->link, ready, now_ms);
	client_take_messages(client, now_ms);
	const bool stop = take_mailbox(client); // also what has just been sent in answer to a message

	if (client->state < client_state::draining)
		step_connection(client, now_ms);
	if (client->state == client_state::running || client->state == client_state::draining) {
		refresh_status(client, now_ms);
		publish_waiting(client, now_ms);
	}
	client_tell_finished(client, outbox_take_finished(&client->box, now_ms));
	client_tell_expired_peers(client, now_ms);

	if (stop && client->state < client_state::draining)
		begin_stop(client, now_ms);
	if (client->state >= client_state::draining)
		step_stopping(client, now_ms);
}

pollfd client_poll(const bus_client *client)
{
	return client->link != nullptr ? mqtt_link_poll(client->link) : pollfd{-1, 0, 0};
}

int64_t client_deadline(bus_client *client, int64_t now_ms)
{
	int64_t deadline = std::min({client->deadline_ms, client->status_due_ms, outbox_deadline(&client->box),
			presence_deadline(&client->presence)});
	if (client->link != nullptr)
		deadline = std::min(deadline, mqtt_link_deadline(client->link, now_ms));
	return deadline;
}
