// raw_port: raw CAN ports, known by a plain descriptor that belongs to their holder, who ends a port with close(). What
// we keep beside one is found by descriptor and socket inode together, and dropped when either no longer fits: at the
// latest when the next port is opened. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bus_frame.h"

// A descriptor above 0 that receives exactly this identifier, or -1 with a message.
int raw_port_open(const char *ifname, uint32_t id);

// Waits for one frame: 0, or -1 when none comes within wait_ms or the descriptor is not (any more) a port.
int raw_port_receive(int descriptor, bus_frame *frame, int wait_ms);

// Ports that something is kept for, for tests.
size_t raw_port_count(void);
