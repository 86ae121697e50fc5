#include "connect_packet.h"

#include <gtest/gtest.h>

namespace
{

using namespace std::string_literals;

const std::string start = "\x00\x04MQTT\x05\x00\x00\x0A"s; // keep-alive 10 s
const std::string client = "\x00\x02"
						   "B1"s;

// A length below 16384 as MQTT writes it.
std::string number(size_t value)
{
	if (value < 128)
		return std::string(1, static_cast<char>(value));
	return {static_cast<char>(value % 128 + 128), static_cast<char>(value / 128)};
}

// A CONNECT with these properties.
std::string packet(const std::string &properties)
{
	const std::string rest = start + number(properties.size()) + properties + client;
	return "\x10"s + number(rest.size()) + rest;
}

connect_state look(const std::string &bytes)
{
	size_t length = 0;
	return connect_look(bytes, &length);
}

const std::string hour = "\x11\x00\x00\x0E\x10"s;
const std::string receive_maximum = "\x21\x00\x14"s;
const std::string user_property = "\x26\x00\x01k\x00\x02vv"s;

} // namespace

TEST(connect_packet, gets_the_expiry_ahead_of_its_properties)
{
	EXPECT_EQ(connect_with_expiry(packet(""), 3600), packet(hour));
	EXPECT_EQ(connect_with_expiry(packet(receive_maximum + user_property), 3600),
			packet(hour + receive_maximum + user_property));
}

TEST(connect_packet, keeps_an_expiry_that_it_has)
{
	const std::string own = packet(user_property + "\x11\x00\x00\x00\x07"s);

	EXPECT_EQ(connect_with_expiry(own, 3600), own);
}

TEST(connect_packet, keeps_what_only_looks_like_an_expiry)
{
	const std::string data = "\x16\x00\x02\x11\x11"s;

	EXPECT_EQ(connect_with_expiry(packet(data), 3600), packet(hour + data));
}

TEST(connect_packet, grows_its_lengths_by_a_byte_where_they_need_one)
{
	for (size_t size = 100; size < 125; size++) { // around 128, its own length and that of its properties
		SCOPED_TRACE(size);
		const std::string text = "\x16"s + static_cast<char>(0) + static_cast<char>(size) + std::string(size, 'v');
		EXPECT_EQ(connect_with_expiry(packet(text), 3600), packet(hour + text));
	}
}

TEST(connect_packet, is_waited_for_until_its_last_byte)
{
	const std::string whole = packet(receive_maximum);
	size_t length = 0;
	for (size_t i = 0; i < whole.size(); i++) {
		SCOPED_TRACE(i);
		EXPECT_EQ(look(whole.substr(0, i)), connect_state::incomplete);
	}
	EXPECT_EQ(connect_look(whole + "more", &length), connect_state::complete);
	EXPECT_EQ(length, whole.size());
}

TEST(connect_packet, is_nothing_but_a_connect_of_mqtt_5)
{
	std::string older = packet("");
	older[8] = 4;
	const struct {
		std::string bytes;
		const char *what;
	} rows[] = {
			{"\x30\x02", "a PUBLISH"},
			{"GET / HTTP/1.1\r\n", "HTTP"},
			{older, "MQTT 3.1.1"},
			{"\x10\x00"s, "empty"},
			{"\x10\xFF\xFF\xFF\xFF"s, "a length without an end"},
			{"\x10\xFF\xFF\x7F"s, "too long"},
	};
	for (const auto &row : rows)
		EXPECT_EQ(look(row.bytes), connect_state::refused) << row.what;
}

TEST(connect_packet, is_refused_with_properties_that_cannot_be_read)
{
	const std::string rows[] = {
			packet("\x11\x00\x00"s),           // cut short
			packet("\x26\x00\x01k"s),          // half a pair
			packet("\x26\x00\xFFk\x00\x01v"s), // longer than the rest
			packet("\x01\x00"s),               // none of a CONNECT
			"\x10\x0A"s + start,               // no properties' length
			"\x10\x0B"s + start + "\x05"s,     // longer than the packet
	};
	for (const std::string &row : rows) {
		SCOPED_TRACE(row);
		EXPECT_EQ(connect_with_expiry(row, 3600), "");
	}
}
