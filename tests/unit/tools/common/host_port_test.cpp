#include "host_port.h"

#include <gtest/gtest.h>

TEST(host_port, takes_names_and_addresses)
{
	const struct {
		const char *text;
		const char *host;
		uint16_t port;
	} rows[] = {
			{"localhost:9133", "localhost", 9133},
			{"bus.example:1", "bus.example", 1},
			{"10.0.0.5:65535", "10.0.0.5", 65535},
			{"[::1]:29777", "::1", 29777},
			{"[2001:db8::7]:8883", "2001:db8::7", 8883},
			{"[fe80::1%eth0]:8883", "fe80::1%eth0", 8883},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		std::string host;
		uint16_t port = 0;

		EXPECT_TRUE(parse_host_port(row.text, host, port));

		EXPECT_EQ(host, row.host);
		EXPECT_EQ(port, row.port);
	}
}

TEST(host_port, refuses_what_is_neither_and_writes_nothing)
{
	for (const char *text : {"", ":", "localhost", ":9133", "localhost:", "localhost:x", "localhost:0",
				 "localhost:65536", "localhost:4294967297", "localhost:9133x", "localhost:+9133", "localhost:-1",
				 "localhost: 9133", "tcp://localhost:9133", "user@localhost:9133", "local host:9133",
				 "local\thost:9133", "::1:9133", "::1", "[::1]", "[::1]:", "[::1]9133", "[]:9133", "[localhost]:9133",
				 "[::1:9133", "::1]:9133", "[[::1]]:9133", "[:: 1]:9133", "[::1]x:9133"}) {
		SCOPED_TRACE(text);
		std::string host = "before";
		uint16_t port = 7;

		EXPECT_FALSE(parse_host_port(text, host, port));

		EXPECT_EQ(host, "before");
		EXPECT_EQ(port, 7);
	}
}
