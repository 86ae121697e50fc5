#include "canserver_link.h"

#include <chrono>
#include <future>
#include <string>

#include <gtest/gtest.h>

#include "channel_driver.h"
#include "guards.h"
#include "played_server.h"

namespace
{

// Whatever a server pours out without an end, a call comes back in its time.
TEST(a_channel_over_a_can_server, ends_each_call_in_its_time_under_no_end_of)
{
	const struct {
		const char *what;
		std::string said;
	} rows[] = {
			{"text", std::string(1000, 'x')},
			{"beginnings", std::string(1000, '<')},
			{"others' frames", "< frame 7E9 1.0 0102030405060708 >\n"},
			{"flow controls", "< frame 7E8 1.0 3000000000000000 >\n"},
			{"first frames", "< frame 7E8 1.0 1014000000000000 >\n"},
			{"echoes", "< echo >"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		const played_server server([&](int descriptor) {
			greet(descriptor);
			while (say(descriptor, row.said))
				;
		});
		can_link link{};
		ASSERT_EQ(canserver_link_open(&link, server.address(), "vcan0", CAN_LINK_TAKES_ONE, 0x7E8), 0);
		const isotp_settings settings = isotp_default_settings(0x7E0, 0x7E8);
		const scoped<channel_driver, channel_driver_free> driver(channel_driver_new(&settings, link));
		ASSERT_NE(driver, nullptr);
		uint8_t answer[8]{0x3E, 0x00};
		size_t length = 0;
		const auto start = std::chrono::steady_clock::now();

		EXPECT_EQ(channel_driver_receive(driver.get(), answer, sizeof(answer), &length, 200), -1);
		(void)channel_driver_send(driver.get(), answer, 2); // nobody reads what is said, and the socket may be full

		EXPECT_LT(ms_since(start), 4000) << "200 ms, N_As, and what a busy machine adds";
	}
}

// A thread that has more to take whenever it looks gives way to the others all the same.
TEST(a_channel_over_a_can_server, is_ended_at_once_under_no_end_of_frames)
{
	std::string many;
	for (int i = 0; i < 10000; i++)
		many += "< frame 7E8 1.0 3000000000000000 >";
	for (int round = 0; round < 5; round++) {
		std::promise<void> flows;
		const played_server server([&](int descriptor) {
			greet(descriptor);
			for (int said = 0; say(descriptor, many); said++)
				if (said == 10) // more than any queue holds: they are being taken
					flows.set_value();
		});
		can_link link{};
		ASSERT_EQ(canserver_link_open(&link, server.address(), "vcan0", CAN_LINK_TAKES_ONE, 0x7E8), 0);
		const isotp_settings settings = isotp_default_settings(0x7E0, 0x7E8);
		const scoped<channel_driver, channel_driver_free> driver(channel_driver_new(&settings, link));
		ASSERT_NE(driver, nullptr);
		std::future<int> received = std::async(std::launch::async, [&driver] {
			uint8_t answer[8];
			size_t length = 0;
			return channel_driver_receive(driver.get(), answer, sizeof(answer), &length, 20000);
		});
		flows.get_future().wait();
		const auto start = std::chrono::steady_clock::now();

		channel_driver_end(driver.get());

		EXPECT_EQ(received.get(), -1);
		EXPECT_LT(ms_since(start), 2000) << "and not after the 20 s of the receive";
	}
}

// What the link has read already wakes nobody by itself.
TEST(a_channel_over_a_can_server, gives_a_sender_the_flow_control_behind_a_receiver_s_answer)
{
	const played_server server([](int descriptor) {
		greet(descriptor);
		while (!hear(descriptor).empty()) {
			say(descriptor, "< frame 7E8 1.0 023E00 >< frame 7E8 1.0 300000 >");
			hear(descriptor); // the consecutive frame
		}
	});
	can_link link{};
	ASSERT_EQ(canserver_link_open(&link, server.address(), "vcan0", CAN_LINK_TAKES_ONE, 0x7E8), 0);
	const isotp_settings settings = isotp_default_settings(0x7E0, 0x7E8);
	const scoped<channel_driver, channel_driver_free> driver(channel_driver_new(&settings, link));
	ASSERT_NE(driver, nullptr);
	for (int round = 0; round < 200; round++) {
		std::future<int> received = std::async(std::launch::async, [&driver] {
			uint8_t answer[8];
			size_t length = 0;
			return channel_driver_receive(driver.get(), answer, sizeof(answer), &length, 20000);
		});
		const uint8_t request[8] = {};
		ASSERT_EQ(channel_driver_send(driver.get(), request, sizeof(request)), 0) << round;
		ASSERT_EQ(received.get(), 0) << round;
	}
}

} // namespace
