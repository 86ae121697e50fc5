// The queue of accepted messages, with a clock that the test sets.
#include "outbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::IsEmpty;
using testing::SizeIs;

namespace
{

class outbox_queue : public testing::Test
{
protected:
	void TearDown() override
	{
		take_all();
		for (tervbus_message *message : {&first, &second, &third})
			tervbus_free_address(message->destination, 1);
	}

	void add(tervbus_message *message, int64_t now_ms, size_t destinations = 1)
	{
		tervbus_free_address(message->destination, 1);
		message->destination = nullptr;
		for (size_t i = 0; i < destinations; i++) {
			const std::string name = std::to_string(message->id) + "/" + std::to_string(i);
			ASSERT_EQ(tervbus_chain_address(&message->destination, 2, name.c_str()), 0);
		}
		outbox_item *item = outbox_item_new(message, {}, now_ms);
		ASSERT_NE(item, nullptr);
		fifo_push(&box.items, item);
	}

	// Publishes what is next under this packet identifier; its destination, or "" for nothing.
	std::string publish(int mid, int64_t now_ms = 0)
	{
		const outbox_publish next = outbox_next(&box, now_ms);
		if (next.leg == nullptr)
			return "";
		outbox_published(&box, next.leg, mid);
		return next.leg->to->value.text;
	}

	struct finished_message {
		tervbus_message *message;
		bool ok;
	};

	static std::vector<finished_message> list_of(fifo<outbox_item> items)
	{
		std::vector<finished_message> finished;
		while (outbox_item *item = fifo_pop(&items)) {
			finished.push_back({item->message, item->ok});
			free(item);
		}
		return finished;
	}

	std::vector<finished_message> take_finished(int64_t now_ms)
	{
		return list_of(outbox_take_finished(&box, now_ms));
	}

	std::vector<finished_message> take_all()
	{
		return list_of(outbox_take_all(&box));
	}

	outbox box;
	static tervbus_message numbered(uint32_t id)
	{
		tervbus_message message{};
		message.id = id;
		return message;
	}

	tervbus_message first = numbered(1);
	tervbus_message second = numbered(2);
	tervbus_message third = numbered(3);
};

} // namespace

TEST_F(outbox_queue, publishes_in_order_and_finishes_by_acknowledgement)
{
	add(&first, 0);
	add(&second, 0);
	EXPECT_EQ(publish(11), "1/0");
	EXPECT_EQ(publish(12), "2/0");
	EXPECT_EQ(publish(13), "");
	outbox_acknowledged(&box, 12, true);
	outbox_acknowledged(&box, 11, false);

	const auto finished = take_finished(1);
	ASSERT_THAT(finished, SizeIs(2));
	EXPECT_EQ(finished[0].message, &first);
	EXPECT_FALSE(finished[0].ok);
	EXPECT_EQ(finished[1].message, &second);
	EXPECT_TRUE(finished[1].ok);
	EXPECT_THAT(take_finished(1), IsEmpty());
	EXPECT_EQ(box.in_flight, 0u);
}

TEST_F(outbox_queue, ignores_an_acknowledgement_that_belongs_to_nothing)
{
	add(&first, 0);
	publish(11);
	outbox_acknowledged(&box, 99, true);
	outbox_acknowledged(&box, 11, true);
	outbox_acknowledged(&box, 11, true);
	EXPECT_EQ(box.in_flight, 0u);
	EXPECT_THAT(take_finished(0), SizeIs(1));
}

TEST_F(outbox_queue, is_ok_only_when_every_destination_was)
{
	add(&first, 0, 2);
	add(&second, 0, 2);
	for (int mid = 1; mid <= 4; mid++)
		publish(mid);
	outbox_acknowledged(&box, 1, true);
	EXPECT_THAT(take_finished(0), IsEmpty());
	outbox_acknowledged(&box, 2, true);
	outbox_acknowledged(&box, 3, false);
	outbox_acknowledged(&box, 4, true);
	const auto finished = take_finished(0);
	ASSERT_THAT(finished, SizeIs(2));
	EXPECT_TRUE(finished[0].ok);
	EXPECT_FALSE(finished[1].ok);
}

TEST_F(outbox_queue, has_a_limited_number_in_flight)
{
	add(&first, 0, outbox_in_flight_max);
	add(&second, 0, 5);
	for (size_t i = 0; i < outbox_in_flight_max; i++)
		EXPECT_NE(publish(static_cast<int>(i + 1)), "");
	EXPECT_EQ(publish(100), "");
	outbox_acknowledged(&box, 3, true);
	EXPECT_NE(publish(100), "");
}

TEST_F(outbox_queue, counts_a_publish_until_it_is_answered_though_its_message_is_over)
{
	add(&first, 0, outbox_in_flight_max);
	add(&second, 10);
	add(&third, 20);
	for (size_t i = 0; i < outbox_in_flight_max; i++)
		ASSERT_NE(publish(static_cast<int>(i + 1)), "");
	outbox_acknowledged(&box, 7, true);
	EXPECT_EQ(publish(100), "2/0");
	EXPECT_THAT(take_finished(60'000), SizeIs(1));
	EXPECT_EQ(publish(101, 60'000), "") << "the broker has answered none of the twenty";
	outbox_acknowledged(&box, 7, true); // answered before
	EXPECT_EQ(publish(101, 60'000), "");
	outbox_acknowledged(&box, 3, true);
	EXPECT_EQ(publish(101, 60'000), "3/0");

	outbox_link_lost(&box);
	EXPECT_EQ(box.in_flight, 0u);
	EXPECT_EQ(publish(1, 60'000), "2/0");
}

TEST_F(outbox_queue, sends_again_in_the_old_order_after_the_link_was_lost)
{
	add(&first, 0);
	add(&second, 0);
	add(&third, 0);
	publish(1);
	publish(2);
	outbox_acknowledged(&box, 1, true);
	take_finished(0);
	outbox_link_lost(&box);
	outbox_acknowledged(&box, 2, true); // of the link that is gone
	EXPECT_EQ(publish(1), "2/0");
	EXPECT_EQ(publish(2), "3/0");
	EXPECT_EQ(box.in_flight, 2u);
}

TEST_F(outbox_queue, does_not_repeat_a_destination_that_has_the_message)
{
	add(&first, 0, 2);
	publish(1);
	publish(2);
	outbox_acknowledged(&box, 1, true);
	outbox_link_lost(&box);
	EXPECT_EQ(publish(7), "1/1");
	EXPECT_EQ(publish(8), "");
}

TEST_F(outbox_queue, fails_a_message_whose_minute_is_over_waiting_or_in_flight)
{
	add(&first, 0);
	add(&second, 10);
	publish(1);
	EXPECT_EQ(outbox_deadline(&box), 60'000);
	EXPECT_THAT(take_finished(59'999), IsEmpty());
	auto finished = take_finished(60'000);
	ASSERT_THAT(finished, SizeIs(1));
	EXPECT_EQ(finished[0].message, &first);
	EXPECT_FALSE(finished[0].ok);
	outbox_acknowledged(&box, 1, true); // too late
	EXPECT_EQ(box.in_flight, 0u);

	EXPECT_EQ(outbox_deadline(&box), 60'010);
	finished = take_finished(60'010);
	ASSERT_THAT(finished, SizeIs(1));
	EXPECT_EQ(finished[0].message, &second);
	EXPECT_EQ(outbox_deadline(&box), INT64_MAX);
}

TEST_F(outbox_queue, tells_what_is_left_of_the_minute)
{
	add(&first, 0);
	EXPECT_EQ(outbox_next(&box, 0).left_s, 60u);
	EXPECT_EQ(outbox_next(&box, 30'500).left_s, 30u);
	EXPECT_EQ(outbox_next(&box, 59'999).left_s, 1u);
	EXPECT_EQ(outbox_next(&box, 60'000).leg, nullptr);
}

TEST_F(outbox_queue, fails_a_message_that_can_never_be_published)
{
	add(&first, 0);
	add(&second, 0);
	outbox_refused(outbox_next(&box, 0).leg);
	EXPECT_EQ(publish(1), "2/0");
	const auto finished = take_finished(0);
	ASSERT_THAT(finished, SizeIs(1));
	EXPECT_EQ(finished[0].message, &first);
	EXPECT_FALSE(finished[0].ok);
}

TEST_F(outbox_queue, gives_back_everything_as_failed)
{
	add(&first, 0);
	add(&second, 0);
	publish(1);
	const auto finished = take_all();
	ASSERT_THAT(finished, SizeIs(2));
	EXPECT_FALSE(finished[0].ok);
	EXPECT_FALSE(finished[1].ok);
	EXPECT_EQ(box.items.first, nullptr);
	EXPECT_EQ(box.in_flight, 0u);
}
