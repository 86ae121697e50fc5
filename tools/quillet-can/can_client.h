// can_client: one connection to the server: what it has sent and what still has to go to it. The server's thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "canserver_lines.h"

struct can_output {
	std::string text;
	bool is_frame; // may be dropped when the client does not read
};

struct can_client {
	uint64_t id = 0;
	int descriptor = -1;
	int bus = -1; // index of the bus that it has opened
	bool is_raw = false;
	bool is_closing = false; // to be closed when its output is out
	bool is_gone = false;
	size_t on_wire = 0;         // its frames that wait for the wire
	int64_t quiet_until_us = 0; // frames are held back till then
	canserver_splitter splitter{};
	std::deque<can_output> output;
	size_t output_at = 0; // bytes of the first one that are out
};

void can_client_say(can_client &client, const std::string &text);

// A client that does not read loses its oldest frames.
void can_client_give_frame(can_client &client, const char *text, size_t length);

// Writes what the socket takes. Frames wait until quiet_until_us.
void can_client_flush(can_client &client, int64_t now_us);

bool can_client_wants_to_write(const can_client &client, int64_t now_us);
bool can_client_wants_to_read(const can_client &client);
