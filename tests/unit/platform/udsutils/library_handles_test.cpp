// Handles and raw ports by the thousand: every number is good once, and nothing is left open behind them. On a CAN
// server, and on a kernel's vcan0.
#include "library_bench.h"

#include <atomic>
#include <future>
#include <unistd.h>

#include "open_descriptors.h"
#include "raw_port.h"

namespace
{

constexpr int long_ms = 20000; // never waited for: whoever waits is woken

class library_handles : public library_bench
{
protected:
	size_t before = 0;

	void SetUp() override
	{
		library_bench::SetUp();
		before = open_descriptors();
	}
};

TEST_F(library_handles, a_thousand_opened_and_closed_leave_nothing_open)
{
	int last = 0;
	for (int i = 0; i < 1000; i++) {
		const int handle = init(0x7E0, 0x7E8);
		ASSERT_GT(handle, last) << "counted up";
		last = handle;
		ASSERT_EQ(transport_deinit(handle, 0), 0);
		ASSERT_LT(transport_deinit(handle, 0), 0) << "a second time it is unknown";
	}
	EXPECT_TRUE(descriptors_are_back_to(before));
}

TEST_F(library_handles, many_at_once_are_told_apart_whatever_order_they_end_in)
{
	constexpr uint32_t count = 120;
	std::vector<int> testers;
	std::vector<int> ecus;
	for (uint32_t i = 0; i < count; i++) {
		testers.push_back(init(0x100 + i, 0x200 + i));
		ecus.push_back(init(0x200 + i, 0x100 + i));
		ASSERT_GT(testers.back(), 0);
		ASSERT_GT(ecus.back(), 0);
	}
	for (uint32_t step = 0; step < count; step++) {
		const uint32_t i = step * 7 % count; // each once, from all over the table
		ASSERT_EQ(send(testers[i], {0x3E, static_cast<uint8_t>(i)}), 0);
		ASSERT_EQ(receive(ecus[i], long_ms), (bytes{0x3E, static_cast<uint8_t>(i)}));
		ASSERT_EQ(transport_deinit(testers[i], 0), 0);
		ASSERT_EQ(transport_deinit(ecus[i], 0), 0);
		ASSERT_LT(send(testers[i], {0x3E}), 0);
	}
	EXPECT_TRUE(descriptors_are_back_to(before));
}

TEST_F(library_handles, a_handle_that_two_threads_end_is_ended_once)
{
	for (int round = 0; round < 50; round++) {
		const int handle = init(0x7E0, 0x7E8);
		std::atomic<int> ready = 0;
		const auto end = [&ready, handle] {
			ready++;
			while (ready < 2)
				std::this_thread::yield();
			return transport_deinit(handle, 0);
		};
		std::future<int> first = std::async(std::launch::async, end);
		std::future<int> second = std::async(std::launch::async, end);
		const int results[] = {first.get(), second.get()};
		ASSERT_EQ((results[0] == 0) + (results[1] == 0), 1);
	}
	EXPECT_TRUE(descriptors_are_back_to(before));
}

TEST_F(library_handles, a_handle_ended_under_a_receive_and_a_send_leaves_nothing_open)
{
	const int port = open_can_port("vcan0", 0x7E0);
	uint8_t data[8];
	uint8_t length = 0;
	for (int round = 0; round < 50; round++) {
		const int handle = init(0x7E0, 0x7E8);
		std::future<bytes> answer = std::async(std::launch::async, [handle] { return receive(handle, long_ms); });
		std::future<int> sent = std::async(std::launch::async, [handle] { return send(handle, counted_bytes(100)); });
		ASSERT_EQ(receive_can_frame(port, data, &length), 0) << "now it waits for a flow control";
		ASSERT_EQ(transport_deinit(handle, 0), 0);
		ASSERT_EQ(answer.get(), failure);
		ASSERT_LT(sent.get(), 0);
	}
	close(port);
	EXPECT_TRUE(descriptors_are_back_to(before));
}

TEST_F(library_handles, one_thread_sends_while_another_receives_a_hundred_exchanges_in_order)
{
	const int tester = init(0x7E0, 0x7E8);
	const int request = init(0x7E8, 0x7E0);
	std::future<void> ecu = std::async(std::launch::async, [request] {
		for (uint8_t i = 0; i < 100; i++) {
			ASSERT_EQ(receive(request, long_ms), (bytes{0x3E, i}));
			ASSERT_EQ(send(request, {0x7E, i}), 0);
		}
	});
	std::atomic<int> received = 0;
	std::future<void> receiver = std::async(std::launch::async, [&] {
		for (uint8_t i = 0; i < 100; i++) {
			ASSERT_EQ(receive(tester, long_ms), (bytes{0x7E, i}));
			received++;
		}
	});

	for (uint8_t i = 0; i < 100; i++) {
		ASSERT_EQ(send(tester, {0x3E, i}), 0);
		while (received <= i && receiver.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
			std::this_thread::yield();
	}

	receiver.get();
	ecu.get();
	EXPECT_EQ(received, 100);
	EXPECT_EQ(transport_deinit(tester, 0), 0);
	EXPECT_EQ(transport_deinit(request, 0), 0);
	EXPECT_TRUE(descriptors_are_back_to(before));
}

TEST_F(library_handles, a_thousand_raw_ports_closed_by_their_holder_leave_nothing_open)
{
	uint8_t data[8];
	uint8_t length = 0;
	for (int batch = 0; batch < 10; batch++) {
		std::vector<int> ports;
		for (uint32_t i = 0; i < 100; i++) {
			ports.push_back(open_can_port("vcan0", 0x300 + i));
			ASSERT_GT(ports.back(), 0);
		}
		const int sender = init(0x300 + 63, 0);
		ASSERT_EQ(send(sender, {0x63}), 0);
		ASSERT_EQ(receive_can_frame(ports[63], data, &length), 0);
		transport_deinit(sender, 0);
		for (const int port : ports)
			ASSERT_EQ(close(port), 0);
		ASSERT_LT(receive_can_frame(ports[63], data, &length), 0) << "a port no more";
	}
	EXPECT_TRUE(descriptors_are_back_to(before));
}

// Linked with the inside of the library, to see what it keeps.
TEST_F(library_handles, nothing_is_kept_for_a_thousand_raw_ports_that_are_closed)
{
	bus_frame frame{};
	for (uint32_t i = 0; i < 1000; i++) {
		const int port = raw_port_open("vcan0", 0x100 + i);
		ASSERT_GT(port, 0);
		ASSERT_EQ(raw_port_receive(port, &frame, 0), -1);
		close(port);
		ASSERT_EQ(raw_port_count(), 0u);
	}
	EXPECT_TRUE(descriptors_are_back_to(before));
}

} // namespace
