// broadcasts: when the frames are due that the ECUs of a bench send by themselves. A pure schedule without a clock;
// readings are microseconds of one monotonic clock.
#pragma once

#include <cstdint>
#include <vector>

#include "description.h"

struct broadcast_entry {
	const broadcast_description *frame; // borrowed from the bench
	int64_t due_us;
};

using broadcast_schedule = std::vector<broadcast_entry>;

// The ECUs have come onto the bus: each frame is due for the first time when its delay has passed.
broadcast_schedule broadcasts_start(const bench_description &bench, int64_t now_us);

// An entry that is due, or NULL.
broadcast_entry *broadcasts_due(broadcast_schedule *schedule, int64_t now_us);

// The entry's frame has been sent. Periods that have passed meanwhile are not made up for.
void broadcasts_sent(broadcast_entry *entry, int64_t now_us);

// When the next frame is due; INT64_MAX without any.
int64_t broadcasts_deadline(const broadcast_schedule &schedule);
