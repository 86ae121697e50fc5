#include "presence.h"

#include "debug.h"

#include <algorithm>
#include <cstring>

namespace
{

// FNV-1a, 32 bits.
presence_peer **bucket_of(presence_table *table, const char *unit)
{
	uint32_t hash = 2166136261u;
	for (; *unit != '\0'; unit++)
		hash = (hash ^ static_cast<unsigned char>(*unit)) * 16777619u;
	return &table->buckets[hash % presence_buckets];
}

// Where the peer's pointer stands, or would.
presence_peer **place_of(presence_table *table, const char *unit)
{
	presence_peer **place = bucket_of(table, unit);
	while (*place != nullptr && strcmp((*place)->unit.text, unit) != 0)
		place = &(*place)->next;
	return place;
}

presence_peer *take_out(presence_table *table, presence_peer **place)
{
	presence_peer *peer = *place;
	if (peer == nullptr)
		return nullptr;
	*place = peer->next;
	table->count--;
	return peer;
}

presence_peer *peer_new(const bus_name &unit, const bus_name &group, int64_t expires_ms)
{
	scoped<presence_peer, presence_peer_free> peer(record_new<presence_peer>());
	if (!peer)
		return nullptr;
	peer->unit = unit;
	peer->group = group;
	peer->expires_ms = expires_ms;
	peer->address = address_list_of_peer(unit.text).release();
	return peer->address != nullptr ? peer.release() : nullptr;
}

const presence_peer *add(presence_table *table, presence_peer **place, presence_peer *peer)
{
	*place = peer;
	table->count++;
	return peer;
}

bool same_name(const bus_name &left, const bus_name &right)
{
	return strcmp(left.text, right.text) == 0;
}

// Of two groups' "on" the one that lasts longer is the newer one.
void refresh(presence_peer *peer, const bus_name &group, int64_t expires_ms)
{
	if (!same_name(peer->group, group) && expires_ms < peer->expires_ms)
		return;
	peer->group = group;
	peer->expires_ms = expires_ms;
}

presence_change note_on(presence_table *table, const bus_name &unit, const bus_name &group, int64_t expires_ms)
{
	presence_peer **place = place_of(table, unit.text);
	table->earliest_ms = std::min(table->earliest_ms, expires_ms);
	if (*place != nullptr) {
		refresh(*place, group, expires_ms);
		return {};
	}
	if (table->count >= presence_peers_max)
		return {};
	presence_peer *peer = peer_new(unit, group, expires_ms);
	if (peer == nullptr) {
		debug_text("no memory to note that %s is on the bus", unit.text);
		return {};
	}
	return {add(table, place, peer), nullptr};
}

presence_change note_off(presence_table *table, const bus_name &unit, const bus_name &group)
{
	presence_peer **place = place_of(table, unit.text);
	if (*place == nullptr || !same_name((*place)->group, group))
		return {};
	return {nullptr, take_out(table, place)};
}

} // namespace

presence_change presence_note(presence_table *table, const bus_name &unit, const bus_name &group,
		std::string_view status, uint32_t left_s, int64_t now_ms)
{
	if (strcmp(unit.text, table->own_unit) == 0)
		return {};
	if (status == "off" || status.empty())
		return note_off(table, unit, group);
	if (status != "on")
		return {};
	return note_on(table, unit, group, now_ms + int64_t{std::min(left_s, status_expiry_s)} * 1000);
}

fifo<presence_peer> presence_expire(presence_table *table, int64_t now_ms)
{
	fifo<presence_peer> gone;
	if (now_ms < table->earliest_ms)
		return gone;

	table->earliest_ms = INT64_MAX;
	for (presence_peer *&bucket : table->buckets) {
		presence_peer **place = &bucket;
		while (*place != nullptr) {
			if ((*place)->expires_ms <= now_ms) {
				fifo_push(&gone, take_out(table, place));
				continue;
			}
			table->earliest_ms = std::min(table->earliest_ms, (*place)->expires_ms);
			place = &(*place)->next;
		}
	}
	return gone;
}

int64_t presence_deadline(const presence_table *table)
{
	return table->earliest_ms;
}

void presence_peer_free(presence_peer *peer)
{
	if (peer == nullptr)
		return;
	address_list_free(peer->address);
	free(peer);
}

void presence_clear(presence_table *table)
{
	for (presence_peer *&bucket : table->buckets)
		while (bucket != nullptr)
			presence_peer_free(take_out(table, &bucket));
}
