// When the MQTT library may look after its keep-alive, with a clock and a connection that the test plays.
#include "keep_alive.h"

#include <gtest/gtest.h>

namespace
{

class keep_alive_of_a_link : public testing::Test
{
protected:
	void SetUp() override
	{
		keep_alive_begin(&state, 0);
	}

	// What is needed at that time, when so many bytes have come and gone since the last look.
	keep_alive_need look(int64_t now_ms, uint64_t read, uint64_t written, uint64_t unsent = 0, bool waiting = false)
	{
		traffic.read += read;
		traffic.written += written;
		traffic.unsent = unsent;
		traffic.waiting = waiting;
		return keep_alive_look(&state, traffic, now_ms);
	}

	keep_alive state;
	link_traffic traffic;
};

} // namespace

TEST_F(keep_alive_of_a_link, is_looked_after_when_it_is_idle)
{
	EXPECT_EQ(look(1'000, 0, 0), keep_alive_need::nothing) << "something has come a second ago";
	EXPECT_EQ(look(9'999, 0, 0), keep_alive_need::nothing);
	EXPECT_EQ(look(10'000, 0, 0), keep_alive_need::housekeeping);
	EXPECT_EQ(look(10'500, 2, 2), keep_alive_need::nothing) << "a ping and its answer";
	EXPECT_EQ(look(20'500, 0, 0), keep_alive_need::housekeeping);
}

TEST_F(keep_alive_of_a_link, is_left_alone_while_a_message_goes_out_slowly)
{
	for (int64_t now_ms = 1'000; now_ms <= 60'000; now_ms += 1'000)
		EXPECT_EQ(look(now_ms, 0, 1'000, 500, true), keep_alive_need::nothing) << now_ms;
}

TEST_F(keep_alive_of_a_link, is_left_alone_while_the_systems_buffer_empties)
{
	look(1'000, 0, 60'000, 60'000);
	for (uint64_t second = 2; second <= 60; second++)
		EXPECT_EQ(look(static_cast<int64_t>(second) * 1'000, 0, 0, 61'000 - second * 1'000), keep_alive_need::nothing)
				<< second;
	EXPECT_EQ(look(71'000, 0, 0, 0), keep_alive_need::housekeeping);
}

TEST_F(keep_alive_of_a_link, has_no_ping_wait_behind_a_message_that_is_stuck)
{
	look(1'000, 0, 5'000, 5'000, true);
	EXPECT_EQ(look(15'000, 0, 0, 5'000, true), keep_alive_need::nothing) << "the other side has taken nothing yet";
	EXPECT_EQ(look(16'000, 0, 0, 4'000, true), keep_alive_need::nothing);
	EXPECT_EQ(look(30'999, 0, 0, 4'000, true), keep_alive_need::nothing);
	EXPECT_EQ(look(31'000, 0, 0, 4'000, true), keep_alive_need::end);
}

TEST_F(keep_alive_of_a_link, ends_though_small_messages_are_written_into_the_void)
{
	for (int64_t now_ms = 1'000; now_ms < 16'000; now_ms += 1'000)
		EXPECT_EQ(look(now_ms, 0, 100, static_cast<uint64_t>(now_ms) / 10), keep_alive_need::nothing) << now_ms;
	EXPECT_EQ(look(16'000, 0, 100, 1'600), keep_alive_need::end);
}

TEST_F(keep_alive_of_a_link, ends_when_a_ping_is_not_even_taken)
{
	EXPECT_EQ(look(10'000, 0, 0), keep_alive_need::housekeeping);
	EXPECT_EQ(look(10'500, 0, 24, 24), keep_alive_need::nothing);
	EXPECT_EQ(look(25'499, 0, 0, 24), keep_alive_need::nothing);
	EXPECT_EQ(look(25'500, 0, 0, 24), keep_alive_need::end);
}

TEST_F(keep_alive_of_a_link, does_not_end_by_what_was_before_the_message)
{
	look(1'000, 1, 1);
	EXPECT_EQ(look(60'000, 0, 100, 100), keep_alive_need::nothing) << "this process stood still";
}

TEST_F(keep_alive_of_a_link, is_looked_after_when_a_broker_takes_all_and_says_nothing)
{
	for (int64_t now_ms = 1'000; now_ms < 10'000; now_ms += 1'000)
		EXPECT_EQ(look(now_ms, 0, 100), keep_alive_need::nothing) << now_ms;
	EXPECT_EQ(look(10'000, 0, 100), keep_alive_need::housekeeping);
	EXPECT_EQ(look(11'000, 0, 100), keep_alive_need::housekeeping);
}

TEST_F(keep_alive_of_a_link, needs_a_word_from_the_node_while_a_message_comes_in_slowly)
{
	for (int64_t now_ms = 1'000; now_ms < 12'000; now_ms += 1'000)
		EXPECT_EQ(look(now_ms, 1'000, 0), keep_alive_need::nothing) << now_ms;
	EXPECT_EQ(look(12'000, 1'000, 0), keep_alive_need::sign_of_life);
	EXPECT_EQ(look(12'500, 1'000, 90), keep_alive_need::nothing) << "said";
	EXPECT_EQ(look(24'000, 1'000, 0), keep_alive_need::nothing);
	EXPECT_EQ(look(24'500, 1'000, 0), keep_alive_need::sign_of_life);
}

TEST_F(keep_alive_of_a_link, is_what_the_broker_has_asked_for)
{
	keep_alive_agree(&state, 0); // for none: nothing changes
	EXPECT_EQ(look(9'999, 0, 0), keep_alive_need::nothing);
	keep_alive_agree(&state, 5);
	EXPECT_EQ(look(10'000, 1, 1), keep_alive_need::nothing);
	EXPECT_EQ(look(14'999, 0, 0), keep_alive_need::nothing);
	EXPECT_EQ(look(15'000, 0, 0), keep_alive_need::housekeeping);
	EXPECT_EQ(look(15'999, 1, 0), keep_alive_need::nothing);
	EXPECT_EQ(look(16'000, 1, 0), keep_alive_need::sign_of_life);
}

TEST_F(keep_alive_of_a_link, is_looked_at_twice_a_second_at_most)
{
	EXPECT_TRUE(keep_alive_look_due(&state, 0));
	look(0, 0, 0);
	EXPECT_FALSE(keep_alive_look_due(&state, 499));
	EXPECT_TRUE(keep_alive_look_due(&state, 500));
}
