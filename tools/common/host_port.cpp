#include "host_port.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace
{

bool is_host_character(char character)
{
	const unsigned char byte = static_cast<unsigned char>(character);
	return byte > 0x20 && byte != 0x7F && std::string_view("/@[]").find(character) == std::string_view::npos;
}

bool parse_port(std::string_view text, uint16_t &port)
{
	const char *end = text.data() + text.size();
	const auto [stop, failure] = std::from_chars(text.data(), end, port);
	return failure == std::errc() && stop == end && port != 0;
}

} // namespace

bool parse_host_port(const std::string &text, std::string &host, uint16_t &port)
{
	const std::string_view whole(text);
	const size_t colon = whole.rfind(':');
	if (colon == std::string_view::npos)
		return false;
	std::string_view name = whole.substr(0, colon);
	const bool bracketed = name.size() > 2 && name.front() == '[' && name.back() == ']';
	if (bracketed)
		name = name.substr(1, name.size() - 2);
	// Without brackets nobody could tell an IPv6 address's last group from a port.
	const bool has_colons = name.find(':') != std::string_view::npos;
	uint16_t number = 0;
	if (name.empty() || bracketed != has_colons || !std::all_of(name.begin(), name.end(), is_host_character) ||
			!parse_port(whole.substr(colon + 1), number))
		return false;
	host = name;
	port = number;
	return true;
}
