// When the frames are due that ECUs send by themselves.
#include <gtest/gtest.h>

#include "broadcasts.h"

namespace
{

constexpr int64_t start_us = 5000000;

class broadcasting : public testing::Test
{
protected:
	void describe(const std::vector<broadcast_description> &first, const std::vector<broadcast_description> &second)
	{
		bench.ecus.resize(2);
		bench.ecus[0].broadcasts = first;
		bench.ecus[1].broadcasts = second;
		schedule = broadcasts_start(bench, start_us);
	}

	// What is sent at this moment, as the identifiers of the frames.
	std::vector<uint32_t> sent_at_ms(int64_t time_ms)
	{
		const int64_t now_us = start_us + time_ms * 1000;
		std::vector<uint32_t> sent;
		while (broadcast_entry *entry = broadcasts_due(&schedule, now_us)) {
			sent.push_back(entry->frame->id);
			broadcasts_sent(entry, now_us);
		}
		return sent;
	}

	int64_t deadline_ms()
	{
		return (broadcasts_deadline(schedule) - start_us) / 1000;
	}

	bench_description bench;
	broadcast_schedule schedule;
};

using ids = std::vector<uint32_t>;

TEST_F(broadcasting, nothing_is_ever_due_without_frames)
{
	describe({}, {});
	EXPECT_EQ(sent_at_ms(1000000), ids());
	EXPECT_EQ(broadcasts_deadline(schedule), INT64_MAX);
}

TEST_F(broadcasting, starts_at_once_and_repeats_with_its_period)
{
	describe({{.id = 1, .data = {}, .period_ms = 100}}, {});
	EXPECT_EQ(deadline_ms(), 0);
	EXPECT_EQ(sent_at_ms(0), ids{1});
	EXPECT_EQ(deadline_ms(), 100);
	EXPECT_EQ(sent_at_ms(99), ids());
	EXPECT_EQ(sent_at_ms(100), ids{1});
	EXPECT_EQ(deadline_ms(), 200);
}

TEST_F(broadcasting, waits_for_its_delay_first)
{
	describe({{.id = 1, .data = {}, .period_ms = 100, .delay_ms = 250}}, {});
	EXPECT_EQ(sent_at_ms(249), ids());
	EXPECT_EQ(deadline_ms(), 250);
	EXPECT_EQ(sent_at_ms(250), ids{1});
	EXPECT_EQ(deadline_ms(), 350);
}

TEST_F(broadcasting, sends_the_frames_of_all_ecus)
{
	describe({{.id = 1, .data = {}, .period_ms = 100}, {.id = 2, .data = {}, .period_ms = 30}},
			{{.id = 3, .data = {}, .period_ms = 100, .delay_ms = 60}});
	EXPECT_EQ(sent_at_ms(0), (ids{1, 2}));
	EXPECT_EQ(sent_at_ms(60), (ids{2, 3}));
	EXPECT_EQ(deadline_ms(), 90);
}

TEST_F(broadcasting, does_not_make_up_for_periods_that_have_passed)
{
	describe({{.id = 1, .data = {}, .period_ms = 100}}, {});
	EXPECT_EQ(sent_at_ms(0), ids{1});
	EXPECT_EQ(sent_at_ms(350), ids{1});
	EXPECT_EQ(deadline_ms(), 400);
}

} // namespace
