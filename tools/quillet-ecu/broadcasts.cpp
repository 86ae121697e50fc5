#include "broadcasts.h"

#include <algorithm>

namespace
{

int64_t us(uint32_t time_ms)
{
	return static_cast<int64_t>(time_ms) * 1000;
}

} // namespace

broadcast_schedule broadcasts_start(const bench_description &bench, int64_t now_us)
{
	broadcast_schedule schedule;
	for (const ecu_description &ecu : bench.ecus)
		for (const broadcast_description &frame : ecu.broadcasts)
			schedule.push_back({&frame, now_us + us(frame.delay_ms)});
	return schedule;
}

broadcast_entry *broadcasts_due(broadcast_schedule *schedule, int64_t now_us)
{
	for (broadcast_entry &entry : *schedule)
		if (entry.due_us <= now_us)
			return &entry;
	return nullptr;
}

void broadcasts_sent(broadcast_entry *entry, int64_t now_us)
{
	const int64_t period_us = us(entry->frame->period_ms);
	entry->due_us += ((now_us - entry->due_us) / period_us + 1) * period_us;
}

int64_t broadcasts_deadline(const broadcast_schedule &schedule)
{
	int64_t deadline_us = INT64_MAX;
	for (const broadcast_entry &entry : schedule)
		deadline_us = std::min(deadline_us, entry.due_us);
	return deadline_us;
}
