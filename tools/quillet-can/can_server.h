// can_server: a CAN server for virtual buses, in socketcand's protocol: "< hi >", "< open bus >", "< rawmode >",
// "< send … >", "< frame … >". One thread runs it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bus_line.h"

struct can_server_options {
	std::vector<std::string> buses;
	std::string listen = "127.0.0.1"; // a numeric address
	uint16_t port = 29536;            // 0 = any free one
	bus_line_options line;            // of every bus
};

struct can_server;

// Listens when it returns. NULL with the reason, and what to do about it, in error.
can_server *can_server_new(const can_server_options &options, std::string &error);

// The port that it listens on.
uint16_t can_server_port(const can_server *server);

// Serves until the descriptor is readable; -1 = for ever.
void can_server_run(can_server *server, int stop_descriptor);

void can_server_free(can_server *server);
