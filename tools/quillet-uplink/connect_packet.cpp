#include "connect_packet.h"

#include <iterator>
#include <optional>

namespace
{

constexpr size_t packet_max = 65536;
constexpr uint8_t connect_byte = 0x10;
constexpr std::string_view protocol("\x00\x04MQTT\x05", 7);
constexpr size_t before_properties = protocol.size() + 3; // flags and keep-alive follow the protocol's name and version
constexpr uint8_t session_expiry = 0x11;

struct number {
	size_t value;
	size_t size; // of its bytes
};

// A variable byte integer (MQTT 5, 1.5.5); nothing when it is cut short or too long.
std::optional<number> read_number(std::string_view bytes)
{
	size_t value = 0;
	for (size_t i = 0; i < 4 && i < bytes.size(); i++) {
		const auto byte = static_cast<uint8_t>(bytes[i]);
		value |= static_cast<size_t>(byte & 0x7F) << (7 * i);
		if ((byte & 0x80) == 0)
			return number{value, i + 1};
	}
	return std::nullopt;
}

std::string write_number(size_t value)
{
	std::string bytes;
	do {
		const size_t rest = value >> 7;
		bytes += static_cast<char>((value & 0x7F) | (rest != 0 ? 0x80u : 0));
		value = rest;
	} while (value != 0);
	return bytes;
}

// How a property's value is written: so many bytes, or so many texts, each with its length in two bytes.
struct property_row {
	uint8_t id;
	size_t bytes;
	size_t texts;
};

// Those that a CONNECT may have (MQTT 5, 3.1.2.11).
constexpr property_row property_table[] = {
		{session_expiry, 4, 0}, {0x15, 0, 1}, // authentication method
		{0x16, 0, 1},                         // authentication data
		{0x17, 1, 0},                         // request problem information
		{0x19, 1, 0},                         // request response information
		{0x21, 2, 0},                         // receive maximum
		{0x22, 2, 0},                         // topic alias maximum
		{0x26, 0, 2},                         // user property
		{0x27, 4, 0},                         // maximum packet size
};
static_assert(std::size(property_table) == 9);

// The length of the property at the front, its id included; 0 when it is none.
size_t property_length(std::string_view bytes)
{
	for (const property_row &row : property_table) {
		if (row.id != static_cast<uint8_t>(bytes[0]))
			continue;
		size_t length = 1 + row.bytes;
		for (size_t i = 0; i < row.texts; i++) {
			if (bytes.size() < length + 2)
				return 0;
			length += 2 + (static_cast<size_t>(static_cast<uint8_t>(bytes[length])) << 8) +
					static_cast<uint8_t>(bytes[length + 1]);
		}
		return length <= bytes.size() ? length : 0;
	}
	return 0;
}

enum class found { no, yes, malformed };

found find_expiry(std::string_view properties)
{
	while (!properties.empty()) {
		const size_t length = property_length(properties);
		if (length == 0)
			return found::malformed;
		if (static_cast<uint8_t>(properties[0]) == session_expiry)
			return found::yes;
		properties.remove_prefix(length);
	}
	return found::no;
}

std::string expiry_property(uint32_t seconds)
{
	std::string bytes(1, static_cast<char>(session_expiry));
	for (int shift = 24; shift >= 0; shift -= 8)
		bytes += static_cast<char>((seconds >> shift) & 0xFF);
	return bytes;
}

} // namespace

connect_state connect_look(std::string_view bytes, size_t *length)
{
	if (bytes.empty())
		return connect_state::incomplete;
	if (static_cast<uint8_t>(bytes[0]) != connect_byte)
		return connect_state::refused;
	const auto remaining = read_number(bytes.substr(1));
	if (!remaining)
		return bytes.size() < 5 ? connect_state::incomplete : connect_state::refused;
	const size_t begin = 1 + remaining->size;
	if (begin + remaining->value > packet_max || remaining->value < before_properties)
		return connect_state::refused;
	if (bytes.size() < begin + remaining->value)
		return connect_state::incomplete;
	if (bytes.substr(begin, protocol.size()) != protocol)
		return connect_state::refused;
	*length = begin + remaining->value;
	return connect_state::complete;
}

std::string connect_with_expiry(std::string_view packet, uint32_t seconds)
{
	size_t length = 0;
	if (connect_look(packet, &length) != connect_state::complete || length != packet.size())
		return {};
	std::string_view body = packet.substr(1 + read_number(packet.substr(1))->size);
	const std::string_view head = body.substr(0, before_properties);
	body.remove_prefix(before_properties);
	const auto count = read_number(body);
	if (!count || body.size() < count->size + count->value)
		return {};
	const std::string_view properties = body.substr(count->size, count->value);
	const std::string_view payload = body.substr(count->size + count->value);
	const found expiry = find_expiry(properties);
	if (expiry != found::no)
		return expiry == found::yes ? std::string(packet) : std::string();

	std::string all = expiry_property(seconds);
	all += properties;
	std::string rest(head);
	rest += write_number(all.size()) + all;
	rest += payload;
	return static_cast<char>(connect_byte) + write_number(rest.size()) + rest;
}
