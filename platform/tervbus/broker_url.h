// The broker's URL: tcp://host:port, an IPv6 address in brackets. The connection is TLS in any case.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

inline constexpr size_t host_max = 253; // RFC 1035, as text

struct broker_url {
	char host[host_max + 1] = ""; // without brackets
	uint16_t port = 0;
};

// False, with *url unchanged, when the text is no such URL.
bool broker_url_parse(std::string_view text, broker_url *url);

// Is the host an IPv4 or IPv6 address rather than a name?
bool broker_host_is_numeric(const char *host);
