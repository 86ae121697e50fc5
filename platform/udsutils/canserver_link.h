// canserver_link: a can_link over TCP to a CAN server that speaks socketcand's protocol in raw mode.
#pragma once

#include <cstdint>

#include "can_link.h"

// Connects to server ("host:port" or "[host]:port"), opens the bus and enters raw mode, within 2 s: 0, or -1 with a
// message.
int canserver_link_open(can_link *link, const char *server, const char *ifname, can_link_filter filter, uint32_t id);

// Can the bus be opened there: 1 yes, 0 no with a message.
int canserver_bus_exists(const char *server, const char *ifname);
