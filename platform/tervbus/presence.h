// Who of the peers is on the bus. Pure: fed with status messages and the clock, it says what changed. A peer is noted
// with all that is needed to tell of its going, so that only its coming can fail; then its next status tries again.
#pragma once

#include "address.h"

inline constexpr int64_t status_refresh_ms = 60'000; // a node says "on" this often
inline constexpr uint32_t status_expiry_s = 180;     // and is gone when it has not for this long
inline constexpr size_t presence_peers_max = 65'536;
inline constexpr size_t presence_buckets = 1024;

// A peer that is on the bus.
struct presence_peer {
	presence_peer *next;
	int64_t expires_ms;     // it is gone then, unless refreshed
	address_entry *address; // owned: as the presence callback names it
	bus_name unit;
	bus_name group; // in whose status it has said "on"; empty: none
};

struct presence_table {
	const char *own_unit = ""; // never told; borrowed
	presence_peer *buckets[presence_buckets] = {};
	size_t count = 0;
	int64_t earliest_ms = INT64_MAX; // no peer's time is over before this
};

// What a status has changed, if anything. One of both at most.
struct presence_change {
	const presence_peer *connected = nullptr; // the table's
	presence_peer *disconnected = nullptr;    // the caller's, for presence_peer_free
};

// A status message: the texts "on" and "off"; an empty one is a status taken back. left_s is what is left of its life.
// A unit whose certificate has got another group leaves its last status behind under the old one: that one no longer
// counts.
presence_change presence_note(presence_table *table, const bus_name &unit, const bus_name &group,
		std::string_view status, uint32_t left_s, int64_t now_ms);

// Takes out the peers whose time is over; they are the caller's, for presence_peer_free.
fifo<presence_peer> presence_expire(presence_table *table, int64_t now_ms);

// When presence_expire has something to do; INT64_MAX for never.
int64_t presence_deadline(const presence_table *table);

// NULL is accepted.
void presence_peer_free(presence_peer *peer);

// Frees all peers.
void presence_clear(presence_table *table);
