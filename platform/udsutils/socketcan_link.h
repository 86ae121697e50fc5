// socketcan_link: a can_link over a raw CAN socket of the kernel, on a vehicle's interface or on vcan.
#pragma once

#include <cstdint>

#include "can_link.h"

// Opens a socket on the interface: 0, or -1 with a message.
int socketcan_link_open(can_link *link, const char *ifname, can_link_filter filter, uint32_t id);

// A link over a socket that is open already, non-blocking, bound, and gives and takes whole frames (struct can_frame).
// The socket is the link's from success on. 0, or -1 with a message.
int socketcan_link_adopt(can_link *link, int descriptor, const char *ifname);

// Is there a CAN interface of this name: 1 yes, 0 no with a message.
int socketcan_exists(const char *ifname);

// Is it up, and its controller on the bus: 1 yes, 0 no with a message.
int socketcan_is_up(const char *ifname);
