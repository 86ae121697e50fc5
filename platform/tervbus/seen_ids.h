// The ids of messages already taken, by sender, so that a redelivery never runs a request twice. Per sender the last
// 4096 ids are known. A sender that has been silent for longer than any message lives is forgotten when many are known,
// and when as many are known as memory is meant for, the one that has been silent the longest: redeliveries come at
// once after a link's loss, before that many others have had a word.
#pragma once

#include "bus_names.h"
#include "message_id.h"

inline constexpr size_t seen_ids_window = 4096;
inline constexpr size_t seen_ids_senders = 64;              // up to here nobody is forgotten
inline constexpr size_t seen_ids_senders_max = 128;         // of 72 KiB each
inline constexpr int64_t seen_ids_silence_ms = 10 * 60'000; // a message lives 60 s in the broker, as long in a session

// All of the window's memory is taken with the first message: a node that runs for years does not grow by its traffic.
struct seen_sender {
	bus_name name;
	int64_t last_ms = 0;
	size_t count = 0; // of the ids that it holds
	size_t next = 0;  // where the next one goes
	message_id window[seen_ids_window];
	// The first two bytes of each id: a search that goes through these is ten times as quick as one through the ids,
	// and each message waits for it.
	uint16_t marks[seen_ids_window];
};

struct seen_ids {
	seen_sender *senders[seen_ids_senders_max] = {};
	size_t count = 0;
};

enum class seen_verdict { fresh, known, no_memory };

// Notes the id as seen, unless memory is too short to do so.
seen_verdict seen_ids_note(seen_ids *seen, const char *sender, const message_id &id, int64_t now_ms);

// Frees what it holds.
void seen_ids_clear(seen_ids *seen);
