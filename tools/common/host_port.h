// Where a server is, as command lines have it.
#pragma once

#include <cstdint>
#include <string>

// "HOST:PORT". A host is a name, an IPv4 address, or an IPv6 address in brackets, which it loses here. False when the
// text is none of these; then nothing is written.
bool parse_host_port(const std::string &text, std::string &host, uint16_t &port);
