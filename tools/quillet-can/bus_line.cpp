#include "bus_line.h"

#include <algorithm>

bus_line bus_line_new(const bus_line_options &options)
{
	bus_line line;
	line.options = options;
	line.random.seed(options.seed);
	return line;
}

uint32_t bus_frame_bits(const bus_frame &frame)
{
	const uint32_t stuffable = (frame.is_extended ? 54u : 34u) + 8u * frame.length;
	constexpr uint32_t rest = 10 + 3; // CRC delimiter, acknowledge, end of frame; interframe space
	return stuffable + stuffable / 16 + rest;
}

static bool happens(bus_line &line, double share)
{
	return share > 0 && std::uniform_real_distribution<double>(0, 1)(line.random) < share;
}

void bus_line_put(bus_line &line, uint64_t sender, const bus_frame &frame, int64_t now_us)
{
	const uint32_t rate = line.options.bitrate;
	const int64_t time_us = rate == 0 ? 0 : int64_t{bus_frame_bits(frame)} * 1000000 / rate;
	line.free_us = std::max(line.free_us, now_us) + time_us;
	const int copies = happens(line, line.options.drop) ? 0 : happens(line, line.options.duplicate) ? 2 : 1;
	line.wire.push_back({line.free_us, sender, frame, copies});
}

bool bus_line_end_transmission(bus_line &line, int64_t now_us, uint64_t *sender)
{
	if (line.wire.empty() || line.wire.front().due_us > now_us)
		return false;
	bus_line_entry entry = line.wire.front();
	line.wire.pop_front();
	*sender = entry.sender;
	entry.due_us += line.options.delay_us;
	if (entry.copies > 0)
		line.delayed.push_back(entry);
	return true;
}

bool bus_line_take(bus_line &line, int64_t now_us, bus_line_entry *entry)
{
	if (line.delayed.empty() || line.delayed.front().due_us > now_us)
		return false;
	*entry = line.delayed.front();
	line.delayed.pop_front();
	return true;
}

int64_t bus_line_deadline(const bus_line &line)
{
	const int64_t wire = line.wire.empty() ? bus_line_never : line.wire.front().due_us;
	const int64_t delayed = line.delayed.empty() ? bus_line_never : line.delayed.front().due_us;
	return std::min(wire, delayed);
}
