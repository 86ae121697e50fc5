// When the MQTT library may look after its keep-alive. It gives a connection up when an answer to its ping takes ten
// seconds, also when the ping or the answer only waits behind a large message on a slow link. So it is not let near
// while a transfer goes on; then this node says something now and then, for the broker counts its silence: one and a
// half times the keep-alive. Pure.
#pragma once

#include <cstdint>

inline constexpr int keepalive_s = 10;
inline constexpr int64_t keep_alive_look_ms = 500;

// Of a connection, since its start.
struct link_traffic {
	uint64_t read = 0;    // bytes
	uint64_t written = 0; // bytes, given to the system
	uint64_t unsent = 0;  // bytes of these that the peer's system has not acknowledged
	bool waiting = false; // there is more to be written than the system takes
};

struct keep_alive {
	int64_t patience_ms = keepalive_s * 1000; // what the connection was agreed to have
	link_traffic last;
	int64_t look_ms = INT64_MIN / 2; // the last look
	int64_t read_ms = 0;             // the last time that bytes had come
	int64_t written_ms = 0;          // that bytes had been written
	int64_t progress_ms = 0;         // that the peer's system had acknowledged some, or nothing waited for it
};

enum class keep_alive_need { nothing, housekeeping, sign_of_life, end };

void keep_alive_begin(keep_alive *state, int64_t now_ms);

// Is it time for a look? They are spared, because each asks the system.
bool keep_alive_look_due(const keep_alive *state, int64_t now_ms);

// The broker has asked for this keep-alive instead. 0: for none.
void keep_alive_agree(keep_alive *state, uint16_t seconds);

keep_alive_need keep_alive_look(keep_alive *state, const link_traffic &traffic, int64_t now_ms);
