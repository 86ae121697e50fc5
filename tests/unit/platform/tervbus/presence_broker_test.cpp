// Who is told of whom, and what the broker lets a certificate do, over a real broker.
#include "bus_fixture.h"

#include <mqtt_protocol.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using bus_presence = bus_broker_test;
using bus_access = bus_broker_test;

bool wait_presence(test_node *node, size_t count)
{
	return node->wait([count](const node_record &record) { return record.presence.size() >= count; });
}

} // namespace

TEST_F(bus_presence, tells_each_coming_and_going_of_the_group_once)
{
	test_node agent(cast().agent, trust());
	test_node other(cast().agent2, trust());
	bring_up(&agent, broker);
	bring_up(&other, broker);
	ASSERT_TRUE(wait_presence(&agent, 1));
	ASSERT_TRUE(wait_presence(&other, 1));
	ASSERT_TRUE(other.stop_and_wait());
	ASSERT_TRUE(wait_presence(&agent, 2));

	EXPECT_THAT(agent.record().presence, ElementsAre("+2:agent2", "-2:agent2"));
	EXPECT_THAT(other.record().presence, ElementsAre("+2:agent"));
}

TEST_F(bus_presence, tells_every_group_of_the_dm_client_by_its_special_address)
{
	test_node agent(cast().agent, trust());
	test_node loner(cast().loner, trust());
	test_node dm_client(cast().dm_client, trust());
	bring_up(&agent, broker);
	bring_up(&loner, broker);
	bring_up(&dm_client, broker);
	ASSERT_TRUE(wait_presence(&agent, 1));
	ASSERT_TRUE(wait_presence(&loner, 1));
	ASSERT_TRUE(dm_client.stop_and_wait());
	ASSERT_TRUE(wait_presence(&agent, 2));
	ASSERT_TRUE(wait_presence(&loner, 2));

	EXPECT_THAT(agent.record().presence, ElementsAre("+1:0", "-1:0"));
	EXPECT_THAT(loner.record().presence, ElementsAre("+1:0", "-1:0"));
}

TEST_F(bus_presence, does_not_tell_of_other_groups)
{
	test_node agent(cast().agent, trust());
	test_node requester(cast().requester, trust());
	test_node other(cast().agent2, trust());
	bring_up(&agent, broker);
	bring_up(&requester, broker);
	bring_up(&other, broker);
	ASSERT_TRUE(wait_presence(&agent, 1));

	EXPECT_THAT(agent.record().presence, ElementsAre("+2:agent2"));
	EXPECT_THAT(requester.record().presence, IsEmpty());
}

TEST_F(bus_presence, tells_a_peer_gone_whose_connection_ends_without_a_goodbye)
{
	test_node agent(cast().agent, trust());
	bring_up(&agent, broker);
	{
		test_mqtt_peer peer(cast().agent2, trust(), "agent2");
		peer.set_will("movra/v1/status/vehicle/agent2", "off");
		ASSERT_EQ(peer.connect(broker.port()), 0);
		ASSERT_EQ(peer.publish({.topic = "movra/v1/status/vehicle/agent2", .payload = "on", .retain = true}), 0);
		ASSERT_TRUE(wait_presence(&agent, 1));
	}
	ASSERT_TRUE(wait_presence(&agent, 2));
	EXPECT_THAT(agent.record().presence, ElementsAre("+2:agent2", "-2:agent2"));
}

TEST_F(bus_presence, keeps_its_status_with_an_expiry)
{
	test_node other(cast().agent2, trust());
	bring_up(&other, broker);
	test_mqtt_peer peer(cast().agent, trust(), "agent");
	ASSERT_EQ(peer.connect(broker.port()), 0);
	ASSERT_EQ(peer.subscribe("movra/v1/status/vehicle/+"), 1);
	ASSERT_TRUE(peer.receive(1));
	ASSERT_TRUE(other.stop_and_wait());
	ASSERT_TRUE(peer.receive(2));
	for (const size_t i : {0u, 1u}) {
		SCOPED_TRACE(i);
		EXPECT_EQ(peer.messages[i].topic, "movra/v1/status/vehicle/agent2");
		EXPECT_EQ(peer.messages[i].payload, i == 0 ? "on" : "off");
		EXPECT_THAT(peer.messages[i].expiry_s, testing::Optional(testing::AllOf(testing::Gt(100u), testing::Le(180u))));
	}
}

TEST_F(bus_presence, has_a_will_with_an_expiry)
{
	test_node other(cast().agent2, trust());
	bring_up(&other, broker);
	test_mqtt_peer peer(cast().agent, trust(), "agent");
	ASSERT_EQ(peer.connect(broker.port()), 0);
	ASSERT_EQ(peer.subscribe("movra/v1/status/vehicle/+"), 1);
	ASSERT_TRUE(peer.receive(1));

	// Whoever comes with the same certificate takes the node's place, and its will is sent.
	test_mqtt_peer double_of_it(cast().agent2, trust(), "agent2");
	ASSERT_EQ(double_of_it.connect(broker.port()), 0);
	ASSERT_TRUE(peer.receive(2));
	EXPECT_EQ(peer.messages[1].payload, "off");
	EXPECT_THAT(peer.messages[1].expiry_s, testing::Optional(testing::AllOf(testing::Gt(100u), testing::Le(180u))));
}

TEST_F(bus_access, refuses_what_a_node_may_not_publish)
{
	test_node requester(cast().requester, trust());
	bring_up(&requester, broker);
	test_mqtt_peer peer(cast().agent, trust(), "agent");
	ASSERT_EQ(peer.connect(broker.port()), 0);

	const char *const refused[] = {
			"movra/v1/ua/requester/agent2",     // another's name
			"movra/v1/ua/agent2/agent",         // no rule
			"movra/v1/grp/backend/agent",       // no rule for the group
			"movra/v1/special/1/agent",         // nobody's
			"movra/v1/status/vehicle/agent2",   // another's status
			"movra/v1/status/backend/agent",    // in another group
			"movra/v1/status//agent",           // in none
			"movra/v1/ua/requester/agent/more", // no topic of the bus
			"somewhere/else",
	};
	for (const char *topic : refused) {
		SCOPED_TRACE(topic);
		EXPECT_EQ(peer.publish({.topic = topic, .payload = "x"}), MQTT_RC_NOT_AUTHORIZED);
	}
	EXPECT_EQ(peer.publish({.topic = "movra/v1/ua/requester/agent", .payload = "x", .retain = true}),
			MQTT_RC_NOT_AUTHORIZED);
	EXPECT_EQ(peer.publish({.topic = "movra/v1/ua/requester/agent", .payload = "x"}), 0);
	ASSERT_TRUE(requester.wait_messages(1));
}

TEST_F(bus_access, refuses_what_a_node_may_not_subscribe_to)
{
	test_mqtt_peer peer(cast().agent, trust(), "agent");
	ASSERT_EQ(peer.connect(broker.port()), 0);

	const char *const refused[] = {"#", "movra/#", "movra/v1/ua/+/+", "movra/v1/ua/agent2/+", "movra/v1/ua/agent/#",
			"movra/v1/grp/backend/+", "movra/v1/grp/+/+", "movra/v1/special/0/+", "movra/v1/status/+/+",
			"movra/v1/status/backend/+", "movra/v1/status//+", "movra/v1/status/+/agent2", "$SYS/#",
			"$share/group/movra/v1/ua/agent/+"};
	for (const char *filter : refused) {
		SCOPED_TRACE(filter);
		EXPECT_EQ(peer.subscribe(filter), MQTT_RC_NOT_AUTHORIZED);
	}
	const char *const granted[] = {"movra/v1/ua/agent/+", "movra/v1/grp/vehicle/+", "movra/v1/status/vehicle/+",
			"movra/v1/status/+/DM-CLIENT"};
	for (const char *filter : granted) {
		SCOPED_TRACE(filter);
		EXPECT_EQ(peer.subscribe(filter), 1);
	}
}

TEST_F(bus_access, gives_a_client_the_name_of_its_certificate)
{
	test_node agent(cast().agent, trust());
	bring_up(&agent, broker);
	test_mqtt_peer peer(cast().agent2, trust(), "agent"); // would take the agent's session
	ASSERT_EQ(peer.connect(broker.port()), 0);
	EXPECT_EQ(peer.subscribe("movra/v1/ua/agent/+"), MQTT_RC_NOT_AUTHORIZED);
	EXPECT_EQ(agent.record().conditions.back(), TERVBUS_CONDITION_RUNNING);
}

TEST_F(bus_access, sends_no_forged_will)
{
	test_node agent(cast().agent, trust());
	test_node other(cast().agent2, trust());
	bring_up(&agent, broker);
	bring_up(&other, broker);
	ASSERT_TRUE(wait_presence(&agent, 1));
	{
		test_mqtt_peer peer(cast().loner, trust(), "loner");
		peer.set_will("movra/v1/status/vehicle/agent2", "off");
		peer.connect(broker.port()); // the broker may refuse such a will at once
	}
	ASSERT_TRUE(other.stop_and_wait());
	ASSERT_TRUE(wait_presence(&agent, 2));
	EXPECT_THAT(agent.record().presence, ElementsAre("+2:agent2", "-2:agent2"));
}

class bus_bridge : public bus_test
{
protected:
	test_broker broker{
			cast().ca, {.rules = "allow unit1 requester\nallow requester unit*\n", .bridges = {"agent unit1,unit2"}}};
};

TEST_F(bus_bridge, speaks_for_exactly_its_units)
{
	broker.start();
	test_node requester(cast().requester, trust());
	bring_up(&requester, broker);
	test_mqtt_peer bridge(cast().agent, trust(), "agent");
	ASSERT_EQ(bridge.connect(broker.port()), 0);

	EXPECT_EQ(bridge.publish({.topic = "movra/v1/ua/requester/unit1", .payload = "x"}), 0);
	EXPECT_EQ(bridge.publish({.topic = "movra/v1/ua/requester/unit2", .payload = "x"}), MQTT_RC_NOT_AUTHORIZED);
	EXPECT_EQ(bridge.publish({.topic = "movra/v1/ua/requester/agent", .payload = "x"}), MQTT_RC_NOT_AUTHORIZED);
	EXPECT_EQ(bridge.publish({.topic = "movra/v1/status/vehicle/unit3", .payload = "on"}), MQTT_RC_NOT_AUTHORIZED);
	EXPECT_EQ(bridge.subscribe("movra/v1/ua/unit1/+"), 1);
	EXPECT_EQ(bridge.subscribe("movra/v1/status/+/unit2"), 1);
	EXPECT_EQ(bridge.subscribe("movra/v1/ua/unit3/+"), MQTT_RC_NOT_AUTHORIZED);
	EXPECT_EQ(bridge.subscribe("movra/v1/ua/agent/+"), MQTT_RC_NOT_AUTHORIZED);
	EXPECT_EQ(bridge.subscribe("movra/v1/ua/+/+"), MQTT_RC_NOT_AUTHORIZED);

	ASSERT_TRUE(requester.wait_messages(1));
	EXPECT_THAT(requester.record().messages[0].source, ElementsAre("2:unit1"));
	ASSERT_EQ(requester.send({"2:unit1"}, "answer"), 0);
	EXPECT_TRUE(bridge.receive(1));
}

TEST_F(bus_test, starts_no_broker_with_options_that_are_not_understood)
{
	if (access("/usr/sbin/mosquitto", X_OK) != 0)
		FAIL() << "no mosquitto on this machine: apt-get install mosquitto";
	const test_broker_options rows[] = {
			{.rules = "permit everything\n", .bridges = {}},
			{.rules = "", .bridges = {"no-units"}},
	};
	for (const test_broker_options &row : rows) {
		test_broker refused(cast().ca, row);
		EXPECT_FALSE(refused.try_start()) << refused.log();
	}
}
