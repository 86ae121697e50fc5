// The messages accepted for sending and not yet told as delivered, in their order. Pure: it says what to publish next,
// is told what became of each publish and of the link, and gives back the finished messages, each exactly once. Memory
// is taken for a message when it is accepted; nothing here can fail after that.
#pragma once

#include "tervbus.h"

#include "message_id.h"
#include "record.h"

inline constexpr size_t outbox_waiting_max = 1000;    // messages accepted and not finished
inline constexpr size_t outbox_in_flight_max = 20;    // publishes not yet acknowledged; the broker's usual limit
inline constexpr int64_t outbox_lifetime_ms = 60'000; // a message is worth this long, from its acceptance
inline constexpr uint32_t outgoing_max = 16u << 20;   // bytes of one message

enum class leg_state { waiting, in_flight, done };

// One destination of a message, which is one publish.
struct outbox_leg {
	const address_entry *to; // the message's
	leg_state state;
	int mid; // in flight: its packet identifier on the present link
	bool ok;
};

struct outbox_item {
	outbox_item *next;
	tervbus_message *message; // the library's until it is finished
	message_id id;            // one for all legs: who is reached twice takes it once
	int64_t expires_ms;
	bool ok; // finished: the broker has it for every destination
	size_t leg_count;
	outbox_leg *legs; // behind the record
};

struct outbox {
	fifo<outbox_item> items;
	size_t in_flight = 0; // publishes that the broker has not answered, those of finished messages included
	int late[outbox_in_flight_max] = {}; // packet identifiers of these: the message was over before the answer
	size_t late_count = 0;
};

// One leg for each entry of the message's destination list. NULL when memory is short; free releases it.
outbox_item *outbox_item_new(tervbus_message *message, const message_id &id, int64_t now_ms);

// What to publish now: the leg's item and the seconds that are left of it, at least 1. leg is NULL for nothing.
struct outbox_publish {
	const outbox_item *item;
	outbox_leg *leg;
	uint32_t left_s;
};

outbox_publish outbox_next(outbox *box, int64_t now_ms);

void outbox_published(outbox *box, outbox_leg *leg, int mid);
void outbox_refused(outbox_leg *leg);

// The broker's answer to the publish with this packet identifier; one that is not known is ignored.
void outbox_acknowledged(outbox *box, int mid, bool ok);

// The link is gone: what was in flight waits again, at its old place.
void outbox_link_lost(outbox *box);

// Takes out what is finished by now, also by its age. The items are the caller's.
fifo<outbox_item> outbox_take_finished(outbox *box, int64_t now_ms);

// Takes out everything that is left, as failed.
fifo<outbox_item> outbox_take_all(outbox *box);

// When the next message is over by its age; INT64_MAX for never.
int64_t outbox_deadline(const outbox *box);
