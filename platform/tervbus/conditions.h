// Which conditions are told, and how long to wait before the next attempt to connect. Pure.
#pragma once

#include "tervbus.h"

inline constexpr int64_t backoff_first_ms = 250;
inline constexpr int64_t backoff_last_ms = 30'000;
inline constexpr int64_t backoff_thrown_out_ms = 8'000; // somebody else uses this identity: do not fight for it
inline constexpr int64_t backoff_stable_ms = 10'000;    // a connection that held this long counts as a good one

struct condition_filter {
	int last = -1;
};

// Is the condition to be told: does it differ from the last one told? Notes it as told.
bool condition_changes(condition_filter *filter, int condition);

struct backoff {
	int64_t next_ms = backoff_first_ms;
};

// The wait before the next attempt: from half of the present step up to all of it, as the random number says, so that a
// fleet does not come back in step. The step doubles up to its limit.
int64_t backoff_take(backoff *wait, uint32_t random);

// A connection has ended after it ran for that long; thrown_out: by the broker's order.
void backoff_note_run(backoff *wait, int64_t ran_ms, bool thrown_out);
