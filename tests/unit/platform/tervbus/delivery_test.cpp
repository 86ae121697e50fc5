// Messages between nodes over a real broker: what arrives, what is told as delivered, what is refused.
#include "bus_fixture.h"

using testing::ElementsAre;
using testing::SizeIs;

namespace
{

class bus_delivery : public bus_broker_test
{
protected:
	void SetUp() override
	{
		bus_broker_test::SetUp();
		bring_up(&requester, broker);
		bring_up(&agent, broker);
	}

	test_node requester{cast().requester, trust()};
	test_node agent{cast().agent, trust()};
};

const std::string ended("{}\0", 3);

} // namespace

TEST_F(bus_delivery, carries_a_message_and_its_answer)
{
	uint32_t id = 0;
	ASSERT_EQ(requester.send({"2:agent"}, ended, &id), 0);
	ASSERT_TRUE(agent.wait_messages(1));
	ASSERT_TRUE(requester.wait_deliveries(1));
	EXPECT_EQ(requester.record().deliveries[0].id, id);
	EXPECT_TRUE(requester.record().deliveries[0].ok);

	ASSERT_EQ(agent.send({"2:requester"}, ended), 0);
	ASSERT_TRUE(requester.wait_messages(1));

	const node_message at_agent{ended, 3, true, "application/json", {"2:requester"}, {"2:agent"}};
	const node_message at_requester{ended, 3, true, "application/json", {"2:agent"}, {"2:requester"}};
	EXPECT_THAT(agent.record().messages, ElementsAre(at_agent));
	EXPECT_THAT(requester.record().messages, ElementsAre(at_requester));
}

TEST_F(bus_delivery, ends_the_data_in_a_zero_byte_that_is_counted)
{
	struct row {
		std::string sent;
		uint32_t length;
	};
	const row rows[] = {{"ab", 3}, {std::string("ab\0", 3), 3}, {std::string("a\0b", 3), 4}, {"", 0}};
	size_t count = 0;
	for (const row &row : rows) {
		SCOPED_TRACE(count);
		ASSERT_EQ(requester.send({"2:agent"}, row.sent), 0);
		ASSERT_TRUE(agent.wait_messages(++count));
		const node_message message = agent.record().messages.back();
		EXPECT_EQ(message.length, row.length);
		EXPECT_TRUE(message.terminated);
		EXPECT_EQ(message.data.substr(0, row.sent.size()), row.sent);
	}
}

TEST_F(bus_delivery, numbers_messages_from_one)
{
	uint32_t first = 0;
	uint32_t second = 0;
	ASSERT_EQ(requester.send({"2:agent"}, ended, &first), 0);
	ASSERT_EQ(requester.send({"2:agent"}, ended, &second), 0);
	EXPECT_EQ(first, 1u);
	EXPECT_EQ(second, 2u);
}

TEST_F(bus_delivery, reaches_every_node_of_a_group)
{
	test_node other(cast().agent2, trust());
	bring_up(&other, broker);

	ASSERT_EQ(requester.send({"3:vehicle"}, ended), 0);
	ASSERT_TRUE(agent.wait_messages(1));
	ASSERT_TRUE(other.wait_messages(1));
	EXPECT_THAT(agent.record().messages[0].destination, ElementsAre("3:vehicle"));
	EXPECT_THAT(other.record().messages[0].source, ElementsAre("2:requester"));
}

TEST_F(bus_delivery, names_the_special_address_of_the_dm_client_behind_its_unit_address)
{
	test_node dm_client(cast().dm_client, trust());
	bring_up(&dm_client, broker);

	ASSERT_EQ(agent.send({"1:0"}, ended), 0);
	ASSERT_TRUE(dm_client.wait_messages(1));
	EXPECT_THAT(dm_client.record().messages[0].destination, ElementsAre("1:0"));

	ASSERT_EQ(dm_client.send({"2:agent"}, ended), 0);
	ASSERT_TRUE(agent.wait_messages(1));
	EXPECT_THAT(agent.record().messages[0].source, ElementsAre("2:DM-CLIENT", "1:0"));
}

TEST_F(bus_delivery, fails_when_nobody_holds_the_address)
{
	ASSERT_EQ(requester.send({"2:agent-that-never-was"}, ended), 0);
	ASSERT_TRUE(requester.wait_deliveries(1));
	EXPECT_FALSE(requester.record().deliveries[0].ok);
}

TEST_F(bus_delivery, fails_when_the_rules_refuse_it)
{
	test_node other(cast().agent2, trust());
	bring_up(&other, broker);

	ASSERT_EQ(agent.send({"2:agent2"}, "forbidden"), 0);
	ASSERT_TRUE(agent.wait_deliveries(1));
	EXPECT_FALSE(agent.record().deliveries[0].ok);

	// Whatever had been let through would have come before this one.
	ASSERT_EQ(requester.send({"2:agent2"}, "allowed"), 0);
	ASSERT_TRUE(other.wait_messages(1));
	EXPECT_EQ(other.record().messages[0].data.substr(0, 7), "allowed");
}

TEST_F(bus_delivery, obeys_rules_that_were_read_anew)
{
	broker.set_rules("allow agent agent2\nallow requester agent*\n");
	broker.reload();
	test_node other(cast().agent2, trust());
	bring_up(&other, broker);

	ASSERT_EQ(agent.send({"2:agent2"}, ended), 0);
	ASSERT_TRUE(agent.wait_deliveries(1));
	EXPECT_TRUE(agent.record().deliveries[0].ok);
}

TEST_F(bus_delivery, obeys_changed_rules_without_being_told)
{
	test_node other(cast().agent2, trust());
	bring_up(&other, broker);
	broker.set_rules("allow agent agent2\n");

	// The broker looks once a second; each round takes a delivery's time.
	const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
	bool obeyed = false;
	for (size_t round = 1; !obeyed && std::chrono::steady_clock::now() < end; round++) {
		ASSERT_EQ(agent.send({"2:agent2"}, ended), 0);
		ASSERT_TRUE(agent.wait_deliveries(round));
		obeyed = agent.record().deliveries[round - 1].ok;
	}
	EXPECT_TRUE(obeyed);

	ASSERT_EQ(requester.send({"2:agent2"}, ended), 0);
	ASSERT_TRUE(requester.wait_deliveries(1));
	EXPECT_FALSE(requester.record().deliveries[0].ok);
}

TEST_F(bus_delivery, keeps_the_rules_in_force_when_the_new_ones_are_no_rules)
{
	broker.set_rules("permit everything\n");
	broker.reload();
	ASSERT_TRUE(broker.wait_log("/rules: ")) << "what is wrong with them";
	ASSERT_EQ(requester.send({"2:agent"}, ended), 0);
	ASSERT_TRUE(requester.wait_deliveries(1));
	EXPECT_TRUE(requester.record().deliveries[0].ok);
}

TEST_F(bus_delivery, is_ok_only_when_every_destination_has_it)
{
	ASSERT_EQ(requester.send({"2:agent", "2:agent-that-never-was"}, ended), 0);
	ASSERT_TRUE(requester.wait_deliveries(1));
	ASSERT_TRUE(agent.wait_messages(1));
	EXPECT_FALSE(requester.record().deliveries[0].ok);

	ASSERT_EQ(requester.send({"2:agent", "3:vehicle"}, ended), 0);
	ASSERT_TRUE(requester.wait_deliveries(2));
	EXPECT_TRUE(requester.record().deliveries[1].ok);
	EXPECT_THAT(requester.record().deliveries, SizeIs(2));
}

TEST_F(bus_delivery, takes_a_message_that_reaches_it_twice_only_once)
{
	ASSERT_EQ(requester.send({"2:agent", "3:vehicle"}, "both"), 0);
	ASSERT_EQ(requester.send({"2:agent"}, "last"), 0);
	ASSERT_TRUE(agent.wait_messages(2));
	EXPECT_EQ(agent.record().messages[1].data.substr(0, 4), "last");
}

TEST_F(bus_delivery, drops_an_id_that_this_sender_has_used_already)
{
	const std::string id = "0123456789abcdef0123456789abcdef";
	test_node dm_client(cast().dm_client, trust());
	test_mqtt_peer peer(cast().loner, trust(), "loner");
	broker.set_rules(std::string(cast_rules) + "allow loner agent\n");
	broker.reload();
	bring_up(&dm_client, broker);
	ASSERT_EQ(peer.connect(broker.port()), 0);

	EXPECT_EQ(peer.publish({.topic = "movra/v1/ua/agent/loner", .payload = "first", .id = id}), 0);
	EXPECT_EQ(peer.publish({.topic = "movra/v1/ua/agent/loner", .payload = "again", .id = id}), 0);
	EXPECT_EQ(peer.publish({.topic = "movra/v1/ua/agent/loner", .payload = "no id"}), 0);
	EXPECT_EQ(peer.publish({.topic = "movra/v1/ua/agent/loner", .payload = "no id"}), 0);

	ASSERT_TRUE(agent.wait_messages(3));
	EXPECT_STREQ(agent.record().messages[0].data.c_str(), "first");
	EXPECT_STREQ(agent.record().messages[1].data.c_str(), "no id");
	EXPECT_STREQ(agent.record().messages[2].data.c_str(), "no id");
}

TEST_F(bus_delivery, puts_id_content_type_and_expiry_on_the_wire)
{
	test_mqtt_peer peer(cast().agent2, trust(), "agent2");
	ASSERT_EQ(peer.connect(broker.port()), 0);
	ASSERT_EQ(peer.subscribe("movra/v1/ua/agent2/+"), 1);

	ASSERT_EQ(requester.send({"2:agent2"}, ended), 0);
	ASSERT_TRUE(peer.receive(1));
	EXPECT_EQ(peer.messages[0].topic, "movra/v1/ua/agent2/requester");
	EXPECT_EQ(peer.messages[0].payload, ended);
	EXPECT_EQ(peer.messages[0].content_type, "application/json");
	EXPECT_THAT(peer.messages[0].id, testing::MatchesRegex("[0-9a-f]+"));
	EXPECT_THAT(peer.messages[0].id, SizeIs(32));
	ASSERT_TRUE(peer.messages[0].expiry_s.has_value());
	EXPECT_THAT(*peer.messages[0].expiry_s, testing::AllOf(testing::Ge(55u), testing::Le(60u)));
}

TEST_F(bus_delivery, keeps_a_message_for_a_node_that_is_away_for_a_moment)
{
	ASSERT_TRUE(agent.stop_and_wait());
	ASSERT_EQ(requester.send({"2:agent"}, "kept"), 0);
	ASSERT_EQ(requester.send({"3:vehicle"}, "kept for the group"), 0);
	ASSERT_TRUE(requester.wait_deliveries(2));
	EXPECT_TRUE(requester.record().deliveries[0].ok);

	agent.forget();
	bring_up(&agent, broker);
	ASSERT_TRUE(agent.wait_messages(2));
	EXPECT_STREQ(agent.record().messages[0].data.c_str(), "kept");
	EXPECT_STREQ(agent.record().messages[1].data.c_str(), "kept for the group");
}

TEST_F(bus_delivery, drops_an_incoming_message_above_the_limit_and_takes_the_next)
{
	const std::string limit(1u << 20, 'x');
	ASSERT_EQ(requester.send({"2:agent"}, limit + "x"), 0);
	ASSERT_EQ(requester.send({"2:agent"}, limit), 0);
	ASSERT_TRUE(agent.wait_messages(1));
	EXPECT_EQ(agent.record().messages[0].length, limit.size() + 1);
	ASSERT_TRUE(requester.wait_deliveries(2));
}

TEST_F(bus_delivery, carries_sixteen_mebibytes_to_a_node_that_raised_its_limit)
{
	const std::string large(16u << 20, 'x');
	setenv("TERVBUS_MAX_INCOMING", "16777216", 1);
	test_node other(cast().agent2, trust());
	bring_up(&other, broker);
	unsetenv("TERVBUS_MAX_INCOMING");

	ASSERT_EQ(requester.send({"2:agent2"}, large), 0);
	ASSERT_TRUE(other.wait_messages(1));
	EXPECT_EQ(other.record().messages[0].data, large + '\0');
	EXPECT_EQ(requester.send({"2:agent2"}, large + "x"), -1);
}

TEST_F(bus_delivery, can_send_from_inside_a_callback)
{
	test_node other(cast().agent2, trust());
	other.in_message = [&other] {
		EXPECT_EQ(other.send({"2:requester"}, ended), 0);
	};
	bring_up(&other, broker);

	ASSERT_EQ(requester.send({"2:agent2"}, ended), 0);
	ASSERT_TRUE(requester.wait_messages(1));
	EXPECT_THAT(requester.record().messages[0].source, ElementsAre("2:agent2"));
}

TEST_F(bus_delivery, keeps_the_order_of_many_messages)
{
	constexpr size_t count = 500;
	for (size_t i = 0; i < count; i++)
		ASSERT_EQ(requester.send({"2:agent"}, std::to_string(i)), 0);
	ASSERT_TRUE(agent.wait_messages(count));
	ASSERT_TRUE(requester.wait_deliveries(count));
	const node_record received = agent.record();
	for (size_t i = 0; i < count; i++)
		ASSERT_STREQ(received.messages[i].data.c_str(), std::to_string(i).c_str());
}
