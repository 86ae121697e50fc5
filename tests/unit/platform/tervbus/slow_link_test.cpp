// Large messages over slow links: they take longer than the keep-alive's patience, and no link is given up for that.
// The short tier sees the same with smaller messages over quicker links.
#include "bus_fixture.h"

#include "support/test_slow_link.h"
#include "support/tier.h"

using testing::ElementsAre;

using bus_slow_link = bus_broker_test;

TEST_F(bus_slow_link, carries_large_messages_up_and_down)
{
	const bool full = times(20) > 1;
	const size_t bytes_per_second = full ? 500'000 : 8'000'000; // 34 s, a quarter of one
	const std::string large((full ? 16u : 2u) << 20, 'x');
	test_slow_link up(broker.port(), bytes_per_second);
	test_slow_link down(broker.port(), bytes_per_second);
	setenv("TERVBUS_MAX_INCOMING", "16777216", 1);
	test_node requester(cast().requester, trust());
	test_node sender(cast().agent, trust());
	test_node receiver(cast().agent2, trust());
	bring_up(&requester, broker);
	ASSERT_EQ(sender.start(up.url()), 0);
	ASSERT_EQ(receiver.start(down.url()), 0);
	unsetenv("TERVBUS_MAX_INCOMING");
	ASSERT_TRUE(sender.wait_condition(TERVBUS_CONDITION_RUNNING));
	ASSERT_TRUE(receiver.wait_condition(TERVBUS_CONDITION_RUNNING));

	ASSERT_EQ(requester.send({"2:agent2"}, large), 0);
	ASSERT_EQ(sender.send({"2:requester"}, large), 0);
	const auto taken = [](const node_record &record) {
		return record.messages.size() == 1;
	};
	ASSERT_TRUE(receiver.wait(taken, std::chrono::seconds(70)));
	ASSERT_TRUE(requester.wait(taken, std::chrono::seconds(70)));
	ASSERT_TRUE(sender.wait_deliveries(1));
	EXPECT_EQ(receiver.record().messages[0].length, large.size() + 1);
	EXPECT_EQ(requester.record().messages[0].length, large.size() + 1);
	EXPECT_TRUE(sender.record().deliveries[0].ok);
	EXPECT_THAT(sender.record().conditions, ElementsAre(7, 0));
	EXPECT_THAT(receiver.record().conditions, ElementsAre(7, 0));
	EXPECT_EQ(up.connections() + down.connections(), 2u);
}

// What waited in the session comes before the answer to the subscription does.
TEST_F(bus_slow_link, carries_what_waited_for_a_node_that_comes_back)
{
	const std::string waiting(1u << 20, 'x');
	test_slow_link down(broker.port(), times(20) > 1 ? 50'000 : 8'000'000); // 21 s, an eighth of one
	test_node requester(cast().requester, trust());
	test_node receiver(cast().agent2, trust());
	bring_up(&requester, broker);
	bring_up(&receiver, broker);
	ASSERT_TRUE(receiver.stop_and_wait());
	ASSERT_EQ(requester.send({"2:agent2"}, waiting), 0);
	ASSERT_TRUE(requester.wait_deliveries(1));
	ASSERT_TRUE(requester.record().deliveries[0].ok);

	receiver.forget();
	ASSERT_EQ(receiver.start(down.url()), 0);
	const auto taken = [](const node_record &record) {
		return record.messages.size() == 1;
	};
	ASSERT_TRUE(receiver.wait(taken, std::chrono::seconds(50)));
	ASSERT_TRUE(receiver.wait_condition(TERVBUS_CONDITION_RUNNING));
	EXPECT_THAT(receiver.record().conditions, ElementsAre(7, 0));
	EXPECT_EQ(down.connections(), 1u);
}
