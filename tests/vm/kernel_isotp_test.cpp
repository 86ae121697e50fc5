// Our ISO-TP against the kernel's, over a virtual interface of the kernel: every length class, block size and kind of
// identifier, both ways.
#include "vcan_bench.h"

#include <atomic>
#include <memory>

using kernel_isotp = vcan_bench;

TEST_F(kernel_isotp, carries_every_class_of_length_both_ways)
{
	open();
	const kernel_ecu ecu;
	for (size_t length : {1u, 6u, 7u, 8u, 13u, 14u, 20u, 62u, 111u, 255u, 256u, 4094u, 4095u}) {
		SCOPED_TRACE(length);
		exchange(ecu, length, length);
	}
}

TEST_F(kernel_isotp, carries_lengths_beyond_12_bits)
{
	open();
	const kernel_ecu ecu;
	for (size_t length : {4096u, 8191u}) {
		SCOPED_TRACE(length);
		exchange(ecu, length, length);
	}
}

TEST_F(kernel_isotp, keeps_to_each_side_s_block_size)
{
	for (uint8_t block_size : {uint8_t{1}, uint8_t{2}, uint8_t{8}, uint8_t{255}}) {
		SCOPED_TRACE(static_cast<int>(block_size));
		open(block_size);
		const kernel_ecu ecu(block_size);
		exchange(ecu, 4095, 4095);
		transport_deinit(handle, 0);
	}
	handle = 0;
}

TEST_F(kernel_isotp, speaks_with_29_bit_identifiers)
{
	open(8, 0, 0x18DA10F1, 0x18DAF110);
	const kernel_ecu ecu(8, 0, 0x18DA10F1, 0x18DAF110);
	exchange(ecu, 7, 7);
	exchange(ecu, 300, 300);
}

TEST_F(kernel_isotp, reaches_ecus_by_a_functional_identifier)
{
	open(0, 0, 0x7DF, 0);
	const kernel_ecu one(0, 0, 0x7DF, 0x7E8);
	const kernel_ecu other(0, 0, 0x7DF, 0x7E9);
	EXPECT_EQ(send({0x3E, 0x80}), 0);
	EXPECT_EQ(one.receive(), (bytes{0x3E, 0x80}));
	EXPECT_EQ(other.receive(), (bytes{0x3E, 0x80}));
}

TEST_F(kernel_isotp, is_an_ecu_to_the_kernel_as_tester)
{
	open(8, 0, response_id, request_id);
	const kernel_ecu tester(8, 0, response_id, request_id);
	for (size_t length : {3u, 100u, 4095u}) {
		SCOPED_TRACE(length);
		std::thread asking([&] { EXPECT_TRUE(tester.send(pattern(length))); });
		bytes request;
		EXPECT_EQ(receive(&request, 2000), 0);
		asking.join();
		EXPECT_EQ(request, pattern(length));
		EXPECT_EQ(send(request), 0);
		EXPECT_EQ(tester.receive(), request);
	}
}

TEST_F(kernel_isotp, exchanges_many_in_a_row)
{
	open(8);
	const kernel_ecu ecu(8);
	for (size_t round = 0; round < 50 && !HasFailure(); ++round)
		exchange(ecu, 1 + round * 3, 150 - round * 3);
}

TEST_F(kernel_isotp, hears_64_ecus_answer_at_once)
{
	struct pair {
		std::unique_ptr<kernel_ecu> ecu;
		int channel = 0;
		int result = -1;
		bytes response;
	};
	std::vector<pair> pairs(64);
	for (uint32_t number = 0; number < pairs.size(); ++number) {
		const bool is_extended = number % 2 == 1;
		const uint32_t request = is_extended ? 0x18DA00F1 + (number << 8) : 0x600 + number;
		const uint32_t response = is_extended ? 0x18DAF100 + number : 0x680 + number;
		pairs[number].ecu = std::make_unique<kernel_ecu>(uint8_t{8}, uint8_t{0}, request, response);
		pairs[number].channel = new_channel(8, 0, request, response);
		ASSERT_GT(pairs[number].channel, 0);
	}
	const kernel_ecu everybody(0, 0, 0x7DF, 0x7EF);
	open(0, 0, 0x7DF, 0);

	std::vector<std::thread> receivers;
	for (pair &each : pairs)
		receivers.emplace_back([&each] { each.result = receive_on(each.channel, &each.response, 3000); });
	EXPECT_EQ(send({0x19, 0x02, 0x08}), 0);
	EXPECT_EQ(everybody.receive(), (bytes{0x19, 0x02, 0x08}));
	for (size_t number = 0; number < pairs.size(); ++number)
		EXPECT_TRUE(pairs[number].ecu->send(pattern(200, static_cast<unsigned>(number))));
	for (std::thread &receiver : receivers)
		receiver.join();

	for (size_t number = 0; number < pairs.size(); ++number) {
		SCOPED_TRACE(number);
		EXPECT_EQ(pairs[number].result, 0);
		EXPECT_EQ(pairs[number].response, pattern(200, static_cast<unsigned>(number)));
		EXPECT_EQ(transport_deinit(pairs[number].channel, 0), 0);
	}
}

// 4,000 frames a second are nine tenths of what 500 kbit/s can carry.
TEST_F(kernel_isotp, loses_nothing_in_a_flood_of_foreign_frames)
{
	open(0, 2);
	const kernel_ecu ecu;
	std::atomic<bool> is_over = false;
	std::thread flood([&is_over] {
		const raw_peer source(0x7FF);
		for (uint32_t number = 0; !is_over; ++number) {
			source.send(pattern(8, number), number % 2 == 0 ? 0x100 + number % 0x500 : 0x18FE0000 + number % 0x1000);
			std::this_thread::sleep_for(std::chrono::microseconds(250));
		}
	});
	exchange(ecu, 4095, 4095);
	is_over = true;
	flood.join();
}
