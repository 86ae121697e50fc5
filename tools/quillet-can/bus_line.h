// bus_line: one virtual CAN bus as a pure queue: frames and clock readings go in, what has come through the wire comes
// out. One frame is on the wire at a time, in order of arrival; without a bit rate it takes no time. Faults are decided
// when a frame is put on the bus.
#pragma once

#include <cstdint>
#include <deque>
#include <random>

#include "bus_frame.h"

struct bus_line_options {
	uint32_t bitrate = 0; // bits a second; 0 = as fast as it goes
	double drop = 0;      // share of frames that get lost, 0 to 1
	double duplicate = 0; // share of frames that come twice
	int64_t delay_us = 0; // between a frame's end on the wire and its reception
	uint32_t seed = 1;    // of the faults
};

struct bus_line_entry {
	int64_t due_us;
	uint64_t sender;
	bus_frame frame;
	int copies; // 0 = lost on the wire
};

struct bus_line {
	bus_line_options options;
	int64_t free_us = 0;                // when the wire is free again
	std::deque<bus_line_entry> wire;    // waiting for the wire or on it
	std::deque<bus_line_entry> delayed; // through the wire, not received yet
	std::minstd_rand random{1};
};

constexpr int64_t bus_line_never = INT64_MAX;

bus_line bus_line_new(const bus_line_options &options);

// Bits of a frame on the wire, interframe space included. Stuff bits depend on the data; one in 16 is a fair mean.
uint32_t bus_frame_bits(const bus_frame &frame);

void bus_line_put(bus_line &line, uint64_t sender, const bus_frame &frame, int64_t now_us);

// Has the frame that has been on the wire ended? Then its sender has room for another one: true, and *sender.
bool bus_line_end_transmission(bus_line &line, int64_t now_us, uint64_t *sender);

// The next entry to be received by everyone but its sender, copies times. False when none is due.
bool bus_line_take(bus_line &line, int64_t now_us, bus_line_entry *entry);

// When one of the two above has something to give.
int64_t bus_line_deadline(const bus_line &line);
