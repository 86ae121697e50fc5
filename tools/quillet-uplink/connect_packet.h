// The first packet of an MQTT 5 connection (MQTT 5, 3.1), as far as the session's expiry needs it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

enum class connect_state {
	incomplete, // more bytes are needed
	complete,
	refused // no CONNECT of MQTT 5, or longer than any bridge's
};

// Looks at the bytes that have come so far; *length is the packet's once it is complete.
connect_state connect_look(std::string_view bytes, size_t *length);

// The packet with this session expiry interval, if it has none of its own; empty when it is malformed.
std::string connect_with_expiry(std::string_view packet, uint32_t seconds);
