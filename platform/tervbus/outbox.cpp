#include "outbox.h"

#include <algorithm>

namespace
{

bool all_done(const outbox_item *item)
{
	return std::all_of(item->legs, item->legs + item->leg_count,
			[](const outbox_leg &leg) { return leg.state == leg_state::done; });
}

bool all_ok(const outbox_item *item)
{
	return std::all_of(item->legs, item->legs + item->leg_count, [](const outbox_leg &leg) { return leg.ok; });
}

bool untouched(const outbox_item *item)
{
	return std::all_of(item->legs, item->legs + item->leg_count,
			[](const outbox_leg &leg) { return leg.state == leg_state::waiting; });
}

// The message is over, its publishes are not.
void note_late(outbox *box, const outbox_item *item)
{
	for (const outbox_leg *leg = item->legs; leg < item->legs + item->leg_count; leg++)
		if (leg->state == leg_state::in_flight)
			box->late[box->late_count++] = leg->mid;
}

bool take_late(outbox *box, int mid)
{
	int *const end = box->late + box->late_count;
	int *const found = std::find(box->late, end, mid);
	if (found == end)
		return false;
	*found = box->late[--box->late_count];
	return true;
}

outbox_leg *find_in_flight(const outbox *box, int mid)
{
	size_t left = box->in_flight - box->late_count;
	for (outbox_item *item = box->items.first; item != nullptr && left > 0; item = item->next) {
		for (outbox_leg *leg = item->legs; leg < item->legs + item->leg_count; leg++) {
			if (leg->state != leg_state::in_flight)
				continue;
			if (leg->mid == mid)
				return leg;
			left--;
		}
	}
	return nullptr;
}

uint32_t seconds_left(const outbox_item *item, int64_t now_ms)
{
	return static_cast<uint32_t>(std::max<int64_t>((item->expires_ms - now_ms + 999) / 1000, 1));
}

} // namespace

outbox_item *outbox_item_new(tervbus_message *message, const message_id &id, int64_t now_ms)
{
	size_t count = 0;
	for (const address_entry *entry = message->destination; entry != nullptr; entry = entry->next)
		count++;

	void *space = calloc(1, sizeof(outbox_item) + count * sizeof(outbox_leg));
	if (space == nullptr)
		return nullptr;
	outbox_item *item = static_cast<outbox_item *>(space);
	item->message = message;
	item->id = id;
	item->expires_ms = now_ms + outbox_lifetime_ms;
	item->legs = reinterpret_cast<outbox_leg *>(item + 1);
	for (const address_entry *entry = message->destination; entry != nullptr; entry = entry->next)
		item->legs[item->leg_count++].to = entry;
	return item;
}

outbox_publish outbox_next(outbox *box, int64_t now_ms)
{
	if (box->in_flight >= outbox_in_flight_max)
		return {};

	for (outbox_item *item = box->items.first; item != nullptr; item = item->next) {
		if (item->expires_ms <= now_ms)
			continue;
		for (outbox_leg *leg = item->legs; leg < item->legs + item->leg_count; leg++)
			if (leg->state == leg_state::waiting)
				return {item, leg, seconds_left(item, now_ms)};
	}
	return {};
}

void outbox_published(outbox *box, outbox_leg *leg, int mid)
{
	leg->state = leg_state::in_flight;
	leg->mid = mid;
	box->in_flight++;
}

void outbox_refused(outbox_leg *leg)
{
	leg->state = leg_state::done;
	leg->ok = false;
}

void outbox_acknowledged(outbox *box, int mid, bool ok)
{
	outbox_leg *leg = find_in_flight(box, mid);
	if (leg == nullptr && !take_late(box, mid))
		return;
	box->in_flight--;
	if (leg == nullptr)
		return;
	leg->state = leg_state::done;
	leg->ok = ok;
}

void outbox_link_lost(outbox *box)
{
	for (outbox_item *item = box->items.first; item != nullptr; item = item->next)
		for (outbox_leg *leg = item->legs; leg < item->legs + item->leg_count; leg++)
			if (leg->state == leg_state::in_flight)
				leg->state = leg_state::waiting;
	box->in_flight = 0;
	box->late_count = 0;
}

fifo<outbox_item> outbox_take_finished(outbox *box, int64_t now_ms)
{
	fifo<outbox_item> finished;
	fifo<outbox_item> kept;
	for (outbox_item *item = box->items.first; item != nullptr; item = box->items.first) {
		const bool done = all_done(item);
		const bool over = done || item->expires_ms <= now_ms;
		if (!over && untouched(item))
			break;                   // publishing keeps the order: nothing behind this one is further
		(void)fifo_pop(&box->items); // it is the item
		if (over) {
			item->ok = done && all_ok(item);
			note_late(box, item);
		}
		fifo_push(over ? &finished : &kept, item);
	}
	fifo_append(&kept, &box->items);
	box->items = kept;
	return finished;
}

fifo<outbox_item> outbox_take_all(outbox *box)
{
	const fifo<outbox_item> finished = box->items; // none is marked as ok
	*box = {};
	return finished;
}

int64_t outbox_deadline(const outbox *box)
{
	// Lifetimes are equal, so the order of acceptance is the order of expiry.
	return box->items.first == nullptr ? INT64_MAX : box->items.first->expires_ms;
}
