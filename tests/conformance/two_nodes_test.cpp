// Two channels with each other: every frame of an exchange lost in turn, and long messages at the slowest pace.
#include "lost_rows.h"
#include "two_nodes.h"

#include <gtest/gtest.h>

namespace
{

void expect_good(two_nodes &nodes, int from, size_t length)
{
	const two_nodes::outcome good = nodes.send(from, pdu_of(length));
	EXPECT_EQ(good.sent, ISOTP_OK);
	EXPECT_TRUE(good.is_received);
	EXPECT_EQ(good.failure, ISOTP_OK);
	EXPECT_EQ(good.pdu, pdu_of(length));
}

TEST(two_isotp_nodes, know_in_time_of_each_frame_that_is_lost_and_understand_each_other_again)
{
	for (const lost_row &row : lost_rows)
		for (const int from : {0, 1}) {
			SCOPED_TRACE(testing::Message() << row.what << " from node " << from);
			two_nodes nodes(row.block_size, 0);

			const two_nodes::outcome lost = nodes.send(from, pdu_of(row.length), row.frame);

			EXPECT_GT(nodes.frames(), row.frame) << "there is no such frame";
			EXPECT_EQ(lost.sent, row.sent);
			EXPECT_FALSE(lost.is_received);
			EXPECT_EQ(lost.failure, row.failure);
			EXPECT_EQ(lost.took_us, row.took_us);
			expect_good(nodes, from, row.length);
			expect_good(nodes, 1 - from, row.length);
		}
}

// None of 62 bytes' frames is special, whatever the block size.
TEST(two_isotp_nodes, never_take_a_message_with_a_hole)
{
	for (const uint8_t block_size : bytes{0, 1, 2, 3, 7, 8, 9}) {
		two_nodes nodes(block_size, 0);
		expect_good(nodes, 0, 62);
		const int frames = nodes.frames();
		for (int frame = 0; frame < frames; frame++) {
			SCOPED_TRACE(testing::Message() << "frame " << frame << ", block size " << int(block_size));

			const two_nodes::outcome lost = nodes.send(0, pdu_of(62), frame);

			EXPECT_FALSE(lost.is_received);
			EXPECT_TRUE(lost.sent != ISOTP_OK || lost.failure != ISOTP_OK) << "one of them knows";
			EXPECT_LE(lost.took_us, 1000 * ms);
			expect_good(nodes, 1, 62);
		}
	}
}

// The separation is kept between the frames of a block, and is not needed behind a flow control.
TEST(two_isotp_nodes, keep_each_pace_over_long_messages)
{
	for (const size_t length : {62u, 4095u, 4096u, 8191u})
		for (const uint8_t block_size : bytes{0, 1, 8, 255})
			for (const uint8_t st_min : bytes{0x00, 0x01, 0x7F, 0xF1, 0xF9, 0x80}) {
				SCOPED_TRACE(testing::Message()
						<< length << " bytes, block size " << int(block_size) << ", STmin " << int(st_min));
				two_nodes nodes(block_size, st_min);
				const int frames = consecutive_count(length);
				const int blocks = block_size == 0 ? 1 : (frames + block_size - 1) / block_size;
				for (const int from : {0, 1}) {
					const two_nodes::outcome good = nodes.send(from, pdu_of(length));

					EXPECT_EQ(good.sent, ISOTP_OK);
					EXPECT_TRUE(good.pdu == pdu_of(length));
					EXPECT_EQ(nodes.frames(), 1 + frames + blocks);
					EXPECT_EQ(good.took_us, (frames - blocks) * isotp_st_min_us(st_min));
				}
			}
}

} // namespace
