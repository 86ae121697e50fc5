#include "canserver_link.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "canserver_lines.h"
#include "open_descriptors.h"
#include "played_server.h"

namespace
{

// A frame of length 0 when none comes in 10 s.
bus_frame next_frame(const can_link &link)
{
	bus_frame frame{};
	int got = 0;
	const int64_t end_us = can_link_monotonic_us() + 10000000;
	while (got == 0 && can_link_monotonic_us() < end_us) {
		got = link.receive(link.state, &frame);
		if (got == 0)
			link.wait(link.state, -1, end_us);
	}
	EXPECT_EQ(got, 1);
	return frame;
}

TEST(a_link_to_a_can_server, is_not_made_and_keeps_no_descriptor_when_the_handshake_goes_wrong)
{
	const struct {
		const char *what;
		void (*play)(int descriptor);
	} rows[] = {
			{"closes at once",
					[](int) {
					}},
			{"another greeting",
					[](int server) {
						say(server, "< error full >");
					}},
			{"no such bus",
					[](int server) {
						say(server, "< hi >");
						hear(server);
						say(server, "< error could not open bus >");
					}},
			{"no raw mode",
					[](int server) {
						say(server, "< hi >");
						hear(server);
						say(server, "< ok >");
						hear(server);
						say(server, "< error >");
					}},
			{"stalls inside its greeting",
					[](int server) {
						say(server, "< h");
						hear(server); // until the client gives up
					}},
			{"says no end of something else",
					[](int server) {
						while (say(server, std::string(1000, 'x')))
							;
					}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		const size_t before = open_descriptors();
		{
			const played_server server(row.play);
			can_link link{};
			const auto start = std::chrono::steady_clock::now();
			EXPECT_EQ(canserver_link_open(&link, server.address(), "vcan0", CAN_LINK_TAKES_ALL, 0), -1);
			EXPECT_LT(ms_since(start), 4000) << "2 s and what a busy machine adds";
			EXPECT_EQ(link.close, nullptr) << "on failure nothing is written";
		}
		EXPECT_EQ(open_descriptors(), before);
	}
}

TEST(a_link_to_a_can_server, tells_why_a_server_has_refused_it)
{
	const struct {
		const char *said;
		void (*play)(int descriptor);
	} rows[] = {
			{"too many clients",
					[](int server) {
						say(server, "< error too many clients >");
					}},
			{"could not open bus",
					[](int server) {
						say(server, "< hi >");
						hear(server);
						say(server, "< error could not open bus >");
					}},
			{"not today",
					[](int server) {
						say(server, "< hi >");
						hear(server);
						say(server, "< ok >");
						hear(server);
						say(server, "< error not today >");
					}},
			{"no answer to open",
					[](int server) {
						say(server, "< hi >");
						hear(server);
						say(server, "< error >");
					}},
			{"does not greet as a CAN server does",
					[](int server) {
						say(server, "220 mail ready <host>\r\n");
					}},
			{"no answer to open",
					[](int server) {
						say(server, "< hi >");
						hear(server);
					}},
			{"no answer to rawmode",
					[](int server) {
						say(server, "< hi >");
						hear(server);
						say(server, "< ok >");
						hear(server);
					}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.said);
		const played_server server(row.play);
		can_link link{};
		testing::internal::CaptureStderr();
		EXPECT_EQ(canserver_link_open(&link, server.address(), "vcan0", CAN_LINK_TAKES_ALL, 0), -1);
		const std::string said = testing::internal::GetCapturedStderr();
		EXPECT_NE(said.find(std::string(server.address()) + ", bus vcan0: " + row.said + "\n"), std::string::npos)
				<< said;
	}
}

TEST(a_link_to_a_can_server, finds_the_frame_behind_whatever_else_a_server_says)
{
	std::string all_bytes;
	for (int i = 0; i < 100000; i++)
		all_bytes += static_cast<char>(i * 31 + i / 256);
	const struct {
		const char *what;
		std::string said;
	} rows[] = {
			{"nothing", ""},
			{"every byte there is", all_bytes},
			{"zero bytes", std::string(5000, '\0')},
			{"half a message", "< frame 7E8 1.0 02 7E"},
			{"the end of a message", "8 1.0 02 7E 00 >"},
			{"a giant message", "< frame 7E8 1.0 " + std::string(1000000, '0') + " >"},
			{"a giant message without an end", "< frame 7E8 1.0 " + std::string(1000000, '0')},
			{"giant text between messages", std::string(1000000, 'x')},
			{"beginnings only", std::string(10000, '<')},
			{"ends only", std::string(10000, '>')},
			{"too many bytes", "< frame 7E8 1.0 010203040506070809 >"},
			{"half a byte", "< frame 7E8 1.0 010 >"},
			{"no time", "< frame 7E8 >< frame 7E8 now 01 >"},
			{"an identifier too large", "< frame 20000000 1.0 01 >< frame FFFFFFFFF 1.0 01 >"},
			{"the same number in the other width", "< frame 000007E8 1.0 01 >"},
			{"another's frames", "< frame 7E9 1.0 01 >< frame 18DAF110 1.0 01 >"},
			{"a remote frame", "< rtr 7E8 1.0 >"},
			{"errors", "< error unknown command >< error 20000004 1.0 >"},
			{"answers to nothing", "< ok >< hi >< echo >"},
			{"what only clients say", "< send 7E8 1 01 >< open vcan0 >< rawmode >"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		const played_server server([&](int descriptor) {
			greet(descriptor);
			EXPECT_TRUE(say(descriptor, row.said + "< frame 7E8 1.0 05AA >"));
			hear(descriptor);
		});
		can_link link{};
		ASSERT_EQ(canserver_link_open(&link, server.address(), "vcan0", CAN_LINK_TAKES_ONE, 0x7E8), 0);

		const bus_frame frame = next_frame(link);

		EXPECT_EQ(frame.length, 2);
		EXPECT_EQ(frame.data[1], 0xAA);
		can_link_close(&link);
	}
}

TEST(a_link_to_a_can_server, is_lost_when_the_server_ends_in_the_middle_of_a_message)
{
	const played_server server([](int descriptor) {
		greet(descriptor);
		say(descriptor, "< frame 7E8 1.0 05A");
	});
	can_link link{};
	ASSERT_EQ(canserver_link_open(&link, server.address(), "vcan0", CAN_LINK_TAKES_ONE, 0x7E8), 0);
	bus_frame frame{};
	int got = 0;

	testing::internal::CaptureStderr();
	for (int i = 0; i < 10 && got == 0; i++) {
		link.wait(link.state, -1, can_link_monotonic_us() + 1000000);
		got = link.receive(link.state, &frame);
	}

	EXPECT_EQ(got, -1);
	EXPECT_EQ(link.send(link.state, &frame), -1);
	EXPECT_EQ(testing::internal::GetCapturedStderr(),
			"udsutils: the connection to the CAN server is lost: closed by the server\n");
	can_link_close(&link);
}

TEST(a_link_to_a_can_server, has_no_frame_while_the_server_stalls_inside_one)
{
	const played_server server([](int descriptor) {
		greet(descriptor);
		say(descriptor, "< frame 7E8 1.0 02 7E");
		hear(descriptor); // the test's frame
		say(descriptor, " 00 >");
		hear(descriptor);
	});
	can_link link{};
	ASSERT_EQ(canserver_link_open(&link, server.address(), "vcan0", CAN_LINK_TAKES_ONE, 0x7E8), 0);
	bus_frame frame{};

	link.wait(link.state, -1, can_link_monotonic_us() + 1000000);
	EXPECT_EQ(link.receive(link.state, &frame), 0);
	EXPECT_EQ(link.send(link.state, &frame), 0);

	EXPECT_EQ(next_frame(link).length, 3);
	can_link_close(&link);
}

TEST(a_link_to_a_can_server, a_mark_drops_what_the_server_sends_before_it_answers_an_echo)
{
	const played_server server([](int descriptor) {
		greet(descriptor);
		say(descriptor, "< echo >< frame 7E8 1.0 01 >"); // before the mark
		EXPECT_EQ(hear(descriptor), "< echo >");
		say(descriptor, "< frame 7E8 1.0 02 >< echo >< frame 7E8 1.0 03 >");
		hear(descriptor);
	});
	can_link link{};
	ASSERT_EQ(canserver_link_open(&link, server.address(), "vcan0", CAN_LINK_TAKES_ONE, 0x7E8), 0);

	EXPECT_EQ(next_frame(link).data[0], 1);
	link.mark(link.state);
	EXPECT_EQ(next_frame(link).data[0], 3);

	can_link_close(&link);
}

TEST(a_link_to_a_can_server, a_mark_does_nothing_with_a_server_that_has_no_echo)
{
	const played_server server([](int descriptor) {
		greet(descriptor);
		say(descriptor, "< error unknown command >< frame 7E8 1.0 01 >");
		EXPECT_EQ(hear(descriptor), "") << "nothing is asked for again";
	});
	can_link link{};
	ASSERT_EQ(canserver_link_open(&link, server.address(), "vcan0", CAN_LINK_TAKES_ONE, 0x7E8), 0);

	link.mark(link.state);

	EXPECT_EQ(next_frame(link).data[0], 1);
	can_link_close(&link);
}

// A link to a server that does not read until it is told to, filled until it takes no more.
class a_link_to_a_server_that_does_not_read : public testing::Test
{
protected:
	std::promise<void> reads;
	std::string heard;
	std::optional<played_server> server;
	can_link link{};
	bus_frame frame{};
	std::vector<std::string> taken;

	void SetUp() override
	{
		server.emplace([this](int descriptor) {
			greet(descriptor);
			reads.get_future().wait();
			char bytes[4096];
			for (ssize_t count = 0; (count = recv(descriptor, bytes, sizeof(bytes), 0)) > 0;)
				heard.append(bytes, static_cast<size_t>(count));
		});
		ASSERT_EQ(canserver_link_open(&link, server->address(), "vcan0", CAN_LINK_TAKES_NONE, 0), 0);
		const int room = 65536; // else the kernel lets it grow to megabytes
		ASSERT_EQ(setsockopt(link.descriptor, SOL_SOCKET, SO_SNDBUF, &room, sizeof(room)), 0);
		frame.length = 8;
		for (int full = 0; full < 50; full++) { // its queue still grows for a while
			while (put() == 0)
				;
			can_link_poll(-1, -1, can_link_monotonic_us() + 1000);
		}
	}

	// Sends one frame, each one different from the one before.
	int put()
	{
		frame.id = taken.size() & 0x7FF;
		const int result = link.send(link.state, &frame);
		char text[canserver_text_max];
		if (result == 0)
			taken.emplace_back(text, canserver_write_send(text, &frame));
		return result;
	}

	// The whole messages among what the server heard up to the end of the link.
	std::vector<std::string> whole_messages()
	{
		can_link_close(&link);
		server.reset();
		std::vector<std::string> messages;
		for (size_t at = 0, end = 0; (end = heard.find('>', at)) != std::string::npos; at = end + 1)
			messages.push_back(heard.substr(at, end + 1 - at));
		return messages;
	}
};

TEST_F(a_link_to_a_server_that_does_not_read, counts_a_frame_as_taken_only_when_the_socket_has_all_of_it)
{
	reads.set_value();

	const std::vector<std::string> messages = whole_messages();

	EXPECT_GT(taken.size(), 100u);
	EXPECT_EQ(messages.size(), taken.size());
	EXPECT_TRUE(messages == taken);
}

TEST_F(a_link_to_a_server_that_does_not_read, goes_on_with_the_frame_that_is_half_out)
{
	reads.set_value();
	for (int more = 0; more < 100; more++)
		while (put() != 0)
			can_link_poll(-1, -1, can_link_monotonic_us() + 1000);

	EXPECT_TRUE(whole_messages() == taken) << "none cut, none twice";
}

} // namespace
