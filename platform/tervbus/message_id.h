// The numbers of messages: the short one that a node's log shows, and the one that travels with the message.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

// 128 bits, as it travels: 32 lower-case hex digits.
using message_id = std::array<uint8_t, 16>;

struct message_id_digits {
	char text[2 * std::tuple_size_v<message_id> + 1] = "";
};

// The one after this: 20 bits, 0 skipped.
uint32_t short_id_next(uint32_t id);

// A new random id; false when the system has no randomness to give.
bool message_id_new(message_id *id);

message_id_digits message_id_text(const message_id &id);

// False, with *id unchanged, for anything but 32 lower-case hex digits.
bool message_id_parse(std::string_view text, message_id *id);
