#include "can_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "can_link.h"
#include "support/can_server_thread.h"
#include "support/loopback.h"

namespace
{

constexpr int patience_ms = 5000;

// A plain client: it says texts and reads texts.
class client
{
public:
	explicit client(uint16_t port)
	{
		const sockaddr_in address = loopback_address(port);
		socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
		const int small = 4096;
		EXPECT_EQ(setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small)), 0);
		EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
	}

	~client()
	{
		close(socket_);
	}

	client(const client &) = delete;
	client &operator=(const client &) = delete;

	void say(const std::string &text)
	{
		ASSERT_EQ(send(socket_, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
	}

	// How often it could say the text, up to so many times, before the server took no more for a while.
	size_t says_at_most(const std::string &text, size_t times)
	{
		size_t bytes = 0;
		while (bytes < times * text.size()) {
			pollfd polled = {socket_, POLLOUT, 0};
			if (poll(&polled, 1, 300) <= 0)
				break;
			const size_t at = bytes % text.size();
			const ssize_t count = send(socket_, text.data() + at, text.size() - at, MSG_NOSIGNAL | MSG_DONTWAIT);
			bytes += count > 0 ? static_cast<size_t>(count) : 0;
		}
		return bytes / text.size();
	}

	// The next message; empty when the server has closed the connection.
	std::string hears()
	{
		for (;;) {
			const size_t start = heard_.find('<');
			const size_t end = heard_.find('>', start);
			if (start != std::string::npos && end != std::string::npos) {
				const std::string message = heard_.substr(start, end + 1 - start);
				heard_.erase(0, end + 1);
				return message;
			}
			pollfd polled = {socket_, POLLIN, 0};
			if (poll(&polled, 1, patience_ms) <= 0)
				return "nothing";
			char bytes[4096];
			const ssize_t count = recv(socket_, bytes, sizeof(bytes), 0);
			if (count <= 0)
				return "";
			heard_.append(bytes, static_cast<size_t>(count));
		}
	}

	// "frame id data" without the time stamp.
	std::string hears_frame()
	{
		std::string text = hears();
		const size_t time = text.find(' ', 8);
		const size_t data = time == std::string::npos ? time : text.find(' ', time + 1);
		if (text.rfind("< frame ", 0) != 0 || data == std::string::npos)
			return text;
		return text.substr(8, time - 8) + " " + text.substr(data + 1, text.size() - data - 3);
	}

	void joins(const std::string &bus)
	{
		EXPECT_EQ(hears(), "< hi >");
		say("< open " + bus + " >");
		EXPECT_EQ(hears(), "< ok >");
		say("< rawmode >");
		EXPECT_EQ(hears(), "< ok >");
	}

private:
	int socket_ = -1;
	std::string heard_;
};

TEST(a_can_server, brings_a_frame_to_all_others_on_the_bus_and_to_nobody_else)
{
	can_server_thread server;
	client sender(server.port());
	client first(server.port());
	client second(server.port());
	client elsewhere(server.port());
	for (client *one : {&sender, &first, &second})
		one->joins("vcan0");
	elsewhere.joins("vcan1");

	sender.say("< send 7E0 3 2 3E 0 >");

	EXPECT_EQ(first.hears_frame(), "7E0 023E00");
	EXPECT_EQ(second.hears_frame(), "7E0 023E00");
	for (client *one : {&sender, &elsewhere}) {
		one->say("< echo >");
		EXPECT_EQ(one->hears(), "< echo >");
	}
}

TEST(a_can_server, writes_29_bit_identifiers_with_8_digits)
{
	can_server_thread server;
	client sender(server.port());
	client receiver(server.port());
	sender.joins("vcan0");
	receiver.joins("vcan0");

	sender.say("< send 18DA10F1 1 FF >< send 00000123 0 >< send 1234 0 >");

	EXPECT_EQ(receiver.hears_frame(), "18DA10F1 FF");
	EXPECT_EQ(receiver.hears_frame(), "00000123 ");
	EXPECT_EQ(receiver.hears_frame(), "00001234 ");
}

TEST(a_can_server, answers_an_unknown_bus_with_an_error_and_ends_the_connection)
{
	can_server_thread server;
	client one(server.port());
	EXPECT_EQ(one.hears(), "< hi >");

	one.say("< open can7 >");

	EXPECT_EQ(one.hears(), "< error could not open bus >");
	EXPECT_EQ(one.hears(), "");
}

TEST(a_can_server, answers_what_it_cannot_do_with_an_error_and_goes_on)
{
	can_server_thread server;
	client one(server.port());
	EXPECT_EQ(one.hears(), "< hi >");
	const struct {
		const char *said;
		const char *answer;
	} rows[] = {
			{"< rawmode >", "< error no bus is open >"},
			{"< send 7E0 0 >", "< error no bus is open >"},
			{"< dance >", "< error unknown command >"},
			{"< echo >", "< echo >"},
			{"< open vcan0 >", "< ok >"},
			{"< open vcan1 >", "< error a bus is open already >"},
			{"< sendrtr 123 0 >", "< error remote frames are not supported >"},
			{"< send 7E0 9 >", "< error unknown command >"},
			{"noise < rawmode >", "< ok >"},
	};
	for (const auto &row : rows) {
		one.say(row.said);
		EXPECT_EQ(one.hears(), row.answer) << row.said;
	}
}

TEST(a_can_server, takes_commands_in_one_piece_or_byte_by_byte)
{
	can_server_thread server;
	client one(server.port());
	client other(server.port());
	other.joins("vcan0");
	one.say("< open vcan0 >< rawmode >");
	for (const char c : std::string("< send 123 1 AA >"))
		one.say(std::string(1, c));

	EXPECT_EQ(other.hears_frame(), "123 AA");
}

TEST(a_can_server, a_client_that_does_not_read_loses_its_oldest_frames_and_delays_nobody)
{
	can_server_thread server;
	client sender(server.port());
	client reader(server.port());
	client sleeper(server.port());
	for (client *one : {&sender, &reader, &sleeper})
		one->joins("vcan0");
	constexpr int frames = 20000;

	for (int i = 0; i < frames; i++) {
		char text[64];
		snprintf(text, sizeof(text), "< send 123 2 %02X %02X >", i >> 8, i & 0xFF);
		sender.say(text);
		snprintf(text, sizeof(text), "123 %02X%02X", i >> 8, i & 0xFF);
		ASSERT_EQ(reader.hears_frame(), text);
	}

	int heard = 0;
	std::string last;
	char expected[16];
	snprintf(expected, sizeof(expected), "123 %02X%02X", (frames - 1) >> 8, (frames - 1) & 0xFF);
	while (last != expected && last != "nothing") {
		last = sleeper.hears_frame();
		heard++;
	}
	EXPECT_EQ(last, expected) << "the newest ones are kept";
	EXPECT_LT(heard, frames);
	EXPECT_GT(heard, 4096);
}

TEST(a_can_server, holds_the_first_frames_back_for_a_moment_after_the_answer_to_rawmode)
{
	can_server_thread server;
	client sender(server.port());
	sender.joins("vcan0");
	client fresh(server.port());
	EXPECT_EQ(fresh.hears(), "< hi >");
	const int64_t start_us = can_link_monotonic_us();
	fresh.say("< open vcan0 >< rawmode >");
	EXPECT_EQ(fresh.hears(), "< ok >");
	EXPECT_EQ(fresh.hears(), "< ok >");

	sender.say("< send 123 0 >");

	EXPECT_EQ(fresh.hears_frame(), "123 ");
	EXPECT_GE(can_link_monotonic_us() - start_us, 20000);
}

TEST(a_can_server, holds_nothing_back_from_a_client_that_has_spoken_since)
{
	can_server_thread server;
	client sender(server.port());
	sender.joins("vcan0");
	int64_t shortest_us = INT64_MAX;
	for (int i = 0; i < 20; i++) { // the best of them, as the machine may be busy
		client one(server.port());
		EXPECT_EQ(one.hears(), "< hi >");
		const int64_t start_us = can_link_monotonic_us();
		one.say("< open vcan0 >< rawmode >< echo >");
		EXPECT_EQ(one.hears(), "< ok >");
		EXPECT_EQ(one.hears(), "< ok >");
		EXPECT_EQ(one.hears(), "< echo >");
		sender.say("< send 123 0 >");
		EXPECT_EQ(one.hears_frame(), "123 ");
		shortest_us = std::min(shortest_us, can_link_monotonic_us() - start_us);
	}
	EXPECT_LT(shortest_us, 20000);
}

TEST(a_can_server, paces_its_buses)
{
	can_server_thread server({"vcan0"}, 0, {.bitrate = 500000});
	client sender(server.port());
	client receiver(server.port());
	sender.joins("vcan0");
	receiver.joins("vcan0");
	const int64_t start_us = can_link_monotonic_us();

	for (int i = 0; i < 200; i++)
		sender.say("< send 123 8 1 2 3 4 5 6 7 8 >");
	for (int i = 0; i < 200; i++)
		ASSERT_EQ(receiver.hears_frame(), "123 0102030405060708");

	EXPECT_GE(can_link_monotonic_us() - start_us, 200 * 234) << "117 bits at 500 kbit/s each";
}

// Else a sender would take a bus that stands still for one that takes everything.
TEST(a_can_server, reads_no_further_from_a_client_whose_frames_wait_for_the_bus)
{
	can_server_thread server({"vcan0"}, 0, {.bitrate = 1000}); // 117 ms for a frame
	client sender(server.port());
	client receiver(server.port());
	sender.joins("vcan0");
	receiver.joins("vcan0");
	std::string many;
	for (int i = 0; i < 1000; i++)
		many += "< send 123 8 1 2 3 4 5 6 7 8 >";

	const int64_t start_us = can_link_monotonic_us();

	EXPECT_LT(sender.says_at_most(many, 300), 300u) << "10 MB: no socket holds so much";
	for (int i = 0; i < 10; i++) // so the server is at work
		ASSERT_EQ(receiver.hears_frame(), "123 0102030405060708");
	EXPECT_GE(can_link_monotonic_us() - start_us, 10 * 117'000);
	EXPECT_EQ(sender.says_at_most(many, 1), 0u) << "and has read no further";
}

TEST(a_can_server, survives_clients_that_leave_in_the_middle_of_things)
{
	can_server_thread server({"vcan0"}, 0, {.delay_us = 1000});
	client receiver(server.port());
	receiver.joins("vcan0");
	for (int i = 0; i < 20; i++) {
		client sender(server.port());
		sender.joins("vcan0");
		sender.say("< send 123 1 01 >< send 12");
	}

	for (int i = 0; i < 20; i++)
		EXPECT_EQ(receiver.hears_frame(), "123 01");
}

TEST(a_can_server, refuses_more_clients_than_it_can_serve)
{
	can_server_thread server;
	std::vector<std::unique_ptr<client>> clients;
	for (int i = 0; i < 384; i++) {
		clients.push_back(std::make_unique<client>(server.port()));
		ASSERT_EQ(clients.back()->hears(), "< hi >");
	}

	client one_more(server.port());

	EXPECT_EQ(one_more.hears(), "< error too many clients >");
	EXPECT_EQ(one_more.hears(), "");
}

TEST(a_can_server, says_why_it_cannot_start)
{
	can_server_thread other;
	const struct {
		std::vector<std::string> buses;
		const char *listen;
		const char *error;
	} rows[] = {
			{{}, "127.0.0.1", "no bus is named; name at least one, for example: quillet-can vcan0"},
			{{"a b"}, "127.0.0.1", "\"a b\" cannot be the name of a bus: printable characters without blanks and < >"},
			{{"vcan0", "vcan0"}, "127.0.0.1", "the bus vcan0 is named twice"},
			{{"vcan0"}, "nowhere", "\"nowhere\" is not an address to listen on; give a numeric one such as 127.0.0.1"},
	};
	std::string error;
	for (const auto &row : rows) {
		can_server_options options;
		options.buses = row.buses;
		options.listen = row.listen;
		EXPECT_EQ(can_server_new(options, error), nullptr);
		EXPECT_EQ(error, row.error);
	}

	can_server_options taken;
	taken.buses = {"vcan0"};
	taken.port = other.port();
	EXPECT_EQ(can_server_new(taken, error), nullptr);
	EXPECT_EQ(error, other.address() + " is taken; give another port with --port, or --port 0 for any free one");
}

TEST(a_can_server, listens_on_29536_of_the_loopback_unless_told_otherwise)
{
	EXPECT_EQ(can_server_options().port, 29536);
	EXPECT_EQ(can_server_options().listen, "127.0.0.1");
	can_server_free(nullptr);
}

} // namespace
