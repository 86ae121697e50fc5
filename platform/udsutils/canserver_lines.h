// canserver_lines: the texts of socketcand's protocol, "< word argument ... >", both ways. Pure functions over bounded
// buffers; whatever bytes come, a message is either understood or passed over.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bus_frame.h"

constexpr size_t canserver_text_max = 192; // the longest message taken, brackets included
constexpr size_t canserver_name_max = 127; // the longest bus name

enum canserver_kind : int {
	CANSERVER_UNKNOWN, // another word, or arguments that do not fit it
	CANSERVER_HI,
	CANSERVER_OK,
	CANSERVER_ERROR, // text: why
	CANSERVER_OPEN,  // text: the bus
	CANSERVER_RAWMODE,
	CANSERVER_ECHO,
	CANSERVER_SEND,   // frame: for the bus
	CANSERVER_FRAME,  // frame: from the bus
	CANSERVER_REMOTE, // a remote frame, asked for or from the bus
	canserver_kind_count
};

struct canserver_message {
	canserver_kind kind;
	bus_frame frame;
	char text[canserver_name_max + 1]; // cut when longer
};

// What has come from a peer and has not made a whole message yet. Zero is the empty state.
struct canserver_splitter {
	char text[canserver_text_max];
	size_t length;
	bool skips; // inside a message that is too long, up to its '>'
};

// Takes one byte; true when it completes the message in text[0..length), which holds until the next call.
bool canserver_split(canserver_splitter *splitter, char byte);

// Understands one whole message.
void canserver_parse(const char *text, size_t length, canserver_message *message);

// Can this be the name of a bus: 1 to 127 printable characters without blanks and angle brackets.
bool canserver_name_is_valid(const char *name);

// Writers: the length written, without the closing zero byte. The space is canserver_text_max.
size_t canserver_write_open(char *space, const char *bus);
size_t canserver_write_send(char *space, const bus_frame *frame);
// A newline goes before the message: python-can's client loses a message without one when it reads a part of it.
size_t canserver_write_frame(char *space, const bus_frame *frame, int64_t time_us);
