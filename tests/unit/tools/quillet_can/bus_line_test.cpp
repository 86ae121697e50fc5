#include "bus_line.h"

#include <gtest/gtest.h>

namespace
{

bus_frame frame_of(uint32_t id, uint8_t length)
{
	return {id, bus_id_is_extended(id), length, {}};
}

// Identifiers of what comes out until the line has nothing more to give, with the moment of each.
std::vector<std::pair<int64_t, uint32_t>> all_received(bus_line &line)
{
	std::vector<std::pair<int64_t, uint32_t>> received;
	for (int64_t now_us = bus_line_deadline(line); now_us != bus_line_never; now_us = bus_line_deadline(line)) {
		uint64_t sender = 0;
		while (bus_line_end_transmission(line, now_us, &sender))
			;
		bus_line_entry entry{};
		while (bus_line_take(line, now_us, &entry))
			for (int i = 0; i < entry.copies; i++)
				received.emplace_back(now_us, entry.frame.id);
	}
	return received;
}

TEST(a_bus_line, without_a_bit_rate_passes_frames_at_once_and_in_order)
{
	bus_line line = bus_line_new({});
	bus_line_put(line, 1, frame_of(0x7E0, 8), 1000);
	bus_line_put(line, 2, frame_of(0x100, 8), 1000);

	EXPECT_EQ(all_received(line), (std::vector<std::pair<int64_t, uint32_t>>{{1000, 0x7E0}, {1000, 0x100}}));
}

TEST(a_bus_line, has_one_frame_at_a_time_on_a_paced_wire)
{
	bus_line line = bus_line_new({.bitrate = 500000});
	const int64_t frame_us = bus_frame_bits(frame_of(1, 8)) * 2;
	bus_line_put(line, 1, frame_of(1, 8), 1000);
	bus_line_put(line, 2, frame_of(2, 8), 1001);
	bus_line_put(line, 1, frame_of(3, 8), 5000);

	EXPECT_EQ(all_received(line),
			(std::vector<std::pair<int64_t, uint32_t>>{
					{1000 + frame_us, 1}, {1000 + 2 * frame_us, 2}, {5000 + frame_us, 3}}));
}

TEST(a_bus_line, counts_the_bits_of_a_frame_as_the_standard_lays_it_out)
{
	// 47 bits with the interframe space and no data, 67 with a 29-bit identifier, stuff bits on top.
	EXPECT_EQ(bus_frame_bits(frame_of(0x7E0, 0)), 47u + 2u);
	EXPECT_EQ(bus_frame_bits(frame_of(0x7E0, 8)), 47u + 64u + 6u);
	EXPECT_EQ(bus_frame_bits(frame_of(0x18DA10F1, 0)), 67u + 3u);
	EXPECT_EQ(bus_frame_bits(frame_of(0x18DA10F1, 8)), 67u + 64u + 7u);
}

TEST(a_bus_line, says_whose_frame_has_left_the_wire)
{
	bus_line line = bus_line_new({.bitrate = 500000});
	bus_line_put(line, 7, frame_of(1, 8), 0);
	const int64_t end_us = bus_line_deadline(line);
	uint64_t sender = 0;

	EXPECT_FALSE(bus_line_end_transmission(line, end_us - 1, &sender));
	EXPECT_TRUE(bus_line_end_transmission(line, end_us, &sender));
	EXPECT_EQ(sender, 7u);
}

TEST(a_bus_line, delays_the_reception_but_not_the_wire)
{
	bus_line line = bus_line_new({.delay_us = 50000});
	bus_line_put(line, 1, frame_of(1, 8), 0);
	bus_line_put(line, 1, frame_of(2, 8), 10);
	uint64_t sender = 0;
	EXPECT_TRUE(bus_line_end_transmission(line, 10, &sender));
	EXPECT_TRUE(bus_line_end_transmission(line, 10, &sender));

	EXPECT_EQ(all_received(line), (std::vector<std::pair<int64_t, uint32_t>>{{50000, 1}, {50010, 2}}));
}

TEST(a_bus_line, loses_every_frame_or_gives_each_twice_when_told_so)
{
	bus_line losing = bus_line_new({.drop = 1});
	bus_line doubling = bus_line_new({.duplicate = 1});
	for (uint32_t id = 1; id <= 3; id++) {
		bus_line_put(losing, 1, frame_of(id, 8), 0);
		bus_line_put(doubling, 1, frame_of(id, 8), 0);
	}

	EXPECT_TRUE(all_received(losing).empty());
	EXPECT_EQ(all_received(doubling).size(), 6u);
}

TEST(a_bus_line, loses_about_its_share_and_the_same_frames_for_the_same_seed)
{
	std::vector<std::pair<int64_t, uint32_t>> received[2];
	for (auto &one : received) {
		bus_line line = bus_line_new({.drop = 0.25, .seed = 7});
		for (uint32_t id = 0; id < 1000; id++)
			bus_line_put(line, 1, frame_of(id, 8), id);
		one = all_received(line);
	}

	EXPECT_EQ(received[0], received[1]);
	EXPECT_GT(received[0].size(), 700u);
	EXPECT_LT(received[0].size(), 800u);
}

} // namespace
