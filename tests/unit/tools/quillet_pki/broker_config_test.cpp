#include "broker_config.h"

#include <algorithm>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rules.h"

using testing::HasSubstr;
using testing::Not;

// The pairs of these names of which the plugin lets the first send to the second, by these rules.
static std::vector<std::string> pairs_let(const std::string &text, const std::vector<std::string> &names)
{
	send_rules rules;
	std::string why;
	std::vector<std::string> pairs;
	EXPECT_TRUE(rules_parse(text, &rules, &why)) << why;
	for (const std::string &sender : names)
		for (const std::string &destination : names)
			if (rules_allow(rules, sender, "", destination, false))
				pairs.push_back(sender + " to " + destination);
	return pairs;
}

TEST(broker_rules, let_requesters_and_agents_reach_each_other_and_nobody_else)
{
	const std::string rules =
			broker_rules({{"A1", "agent"}, {"A2", "agent"}, {"R1", "requester"}, {"R2", "requester"}});

	EXPECT_THAT(pairs_let(rules, {"A1", "A2", "R1", "R2", "X"}),
			testing::UnorderedElementsAre(
					"R1 to A1", "R1 to A2", "R2 to A1", "R2 to A2", "A1 to R1", "A1 to R2", "A2 to R1", "A2 to R2"));
	EXPECT_THAT(rules, Not(testing::AnyOf(HasSubstr("*"), HasSubstr("@"))));
}

TEST(broker_rules, grow_by_one_line_a_node_however_many_requesters_there_are)
{
	std::vector<stored_node> nodes;
	for (int i = 0; i < 100; i++)
		nodes.push_back({"R" + std::to_string(i), "requester"});
	const std::string before = broker_rules(nodes);
	for (int i = 0; i < 1000; i++)
		nodes.push_back({"A" + std::to_string(i), "agent"});

	const std::string text = broker_rules(nodes);

	const auto lines = [](const std::string &of) {
		return std::count(of.begin(), of.end(), '\n');
	};
	EXPECT_LT(lines(text) - lines(before), 1010);
	EXPECT_LT(text.size(), 100 * nodes.size());
	EXPECT_THAT(pairs_let(text, {"R99", "A0", "A999"}),
			testing::UnorderedElementsAre("R99 to A0", "R99 to A999", "A0 to R99", "A999 to R99"));
}

TEST(broker_rules, allow_nothing_while_there_are_no_nodes)
{
	EXPECT_THAT(pairs_let(broker_rules({}), {"A1", "R1", "agent", "requester"}), testing::IsEmpty());
}

TEST(broker_rules, say_that_what_is_changed_by_hand_is_lost)
{
	EXPECT_THAT(broker_rules({}), HasSubstr("\n# quillet-pki writes it anew with each node"));
}

TEST(broker_rules, quote_a_name_with_a_blank)
{
	const std::string rules = broker_rules({{"Unit 7", "agent"}, {"R1", "requester"}});

	EXPECT_THAT(rules, HasSubstr("\"Unit 7\""));
	EXPECT_THAT(pairs_let(rules, {"R1", "Unit 7", "Unit", "7"}),
			testing::UnorderedElementsAre("R1 to Unit 7", "Unit 7 to R1"));
}

TEST(broker_rules, pass_over_a_node_whose_role_is_neither)
{
	EXPECT_THAT(pairs_let(broker_rules({{"X", "gardener"}, {"R1", "requester"}}), {"X", "R1"}), testing::IsEmpty());
}

static std::string configuration()
{
	broker_settings settings;
	settings.directory = "/pki";
	settings.port = 19133;
	settings.plugin = "/lib/plugin.so";
	settings.user = "someone";
	return broker_configuration(settings);
}

TEST(broker_configuration, has_every_setting_that_the_bus_relies_on)
{
	for (const char *line : {"per_listener_settings false", "user someone", "set_tcp_nodelay true", "persistence true",
				 "persistence_location /pki/broker/data/", "autosave_on_changes true", "autosave_interval 1",
				 "max_queued_messages 10000", "max_queued_bytes 67108864", "message_size_limit 16777216",
				 "log_dest file /pki/broker/data/broker.log", "listener 19133 127.0.0.1", "allow_anonymous false",
				 "allow_zero_length_clientid false", "cafile /pki/ca/ca.pem", "crlfile /pki/ca/crl.pem",
				 "certfile /pki/broker/cert.pem", "keyfile /pki/broker/private.pem", "tls_version tlsv1.2",
				 "require_certificate true", "use_identity_as_username true", "use_username_as_clientid true",
				 "plugin /lib/plugin.so", "plugin_opt_rules /pki/broker/rules",
				 "plugin_opt_persistence /pki/broker/data", "include_dir /pki/broker/bridges"}) {
		SCOPED_TRACE(line);
		EXPECT_THAT(configuration(), HasSubstr("\n" + std::string(line) + "\n"));
	}
}

TEST(broker_configuration, puts_what_belongs_to_the_listener_behind_it)
{
	std::string text = configuration();
	size_t listener = text.find("\nlistener ");

	for (const char *word : {"allow_anonymous", "cafile", "require_certificate", "plugin ", "plugin_opt_rules"}) {
		SCOPED_TRACE(word);
		EXPECT_GT(text.find("\n" + std::string(word)), listener);
	}
	for (const char *word : {"per_listener_settings", "set_tcp_nodelay", "persistence ", "autosave_interval"}) {
		SCOPED_TRACE(word);
		EXPECT_LT(text.find("\n" + std::string(word)), listener);
	}
}

TEST(broker_rules, let_requesters_and_the_units_of_a_bridge_reach_each_other)
{
	const std::string rules = broker_rules({{"B1", "bridge", {"A1", "A2"}}, {"R1", "requester"}, {"A3", "agent"}});

	EXPECT_THAT(rules, HasSubstr("\nbridge B1 A1,A2\n"));
	EXPECT_THAT(pairs_let(rules, {"A1", "A2", "A3", "B1", "R1"}),
			testing::UnorderedElementsAre("R1 to A1", "R1 to A2", "R1 to A3", "A1 to R1", "A2 to R1", "A3 to R1"));
}

TEST(broker_rules, let_the_peers_of_an_uplink_and_its_units_reach_each_other_and_nobody_else)
{
	const std::string rules = broker_rules(
			{{"A1", "agent"}, {"A2", "agent"}, {"R1", "requester"}, {"B1", "uplink", {"A1"}, {"P1", "P2"}}});

	EXPECT_THAT(rules, HasSubstr("\nbridge bridge/B1 P1,P2\n"));
	EXPECT_THAT(pairs_let(rules, {"A1", "A2", "B1", "R1", "P1", "P2"}),
			testing::UnorderedElementsAre(
					"R1 to A1", "R1 to A2", "A1 to R1", "A2 to R1", "P1 to A1", "P2 to A1", "A1 to P1", "A1 to P2"));
}

static uplink_settings uplink()
{
	uplink_settings settings;
	settings.folder = "/pki/CAR";
	settings.name = "CAR";
	settings.host = "127.0.0.1";
	settings.port = 9134;
	settings.units = {"A1", "A2"};
	settings.peers = {"P1", "DM-CLIENT"};
	return settings;
}

TEST(uplink_configuration, has_every_setting_that_a_bridge_relies_on)
{
	const std::string text = uplink_configuration(uplink());

	for (const char *line : {"connection CAR", "address 127.0.0.1:9134", "bridge_protocol_version mqttv50",
				 "remote_clientid CAR", "local_clientid bridge/CAR", "local_username bridge/CAR", "cleansession false",
				 "local_cleansession false", "notifications false", "try_private false",
				 "bridge_attempt_unsubscribe false"}) {
		SCOPED_TRACE(line);
		EXPECT_THAT(text, HasSubstr("\n" + std::string(line) + "\n"));
	}
	EXPECT_THAT(text, Not(HasSubstr("bridge_keyfile")));
}

TEST(uplink_configuration, carries_the_units_inboxes_and_status_and_nothing_else)
{
	std::vector<std::string> topics;
	std::istringstream text(uplink_configuration(uplink()));
	for (std::string line; std::getline(text, line);)
		if (line.starts_with("topic "))
			topics.push_back(line.substr(15)); // behind the topics' common start

	EXPECT_THAT(topics,
			testing::UnorderedElementsAre("status/+/A1 out 1", "status/+/A2 out 1", "ua/A1/P1 in 1", "ua/P1/A1 out 1",
					"ua/A1/DM-CLIENT in 1", "ua/DM-CLIENT/A1 out 1", "special/0/A1 out 1", "ua/A2/P1 in 1",
					"ua/P1/A2 out 1", "ua/A2/DM-CLIENT in 1", "ua/DM-CLIENT/A2 out 1", "special/0/A2 out 1"));
}

TEST(uplink_configuration, has_its_own_tls_when_nothing_stands_between)
{
	uplink_settings settings = uplink();
	settings.direct = true;
	const std::string text = uplink_configuration(settings);

	for (const char *line : {"bridge_cafile /pki/CAR/ca.pem", "bridge_certfile /pki/CAR/cert.pem",
				 "bridge_keyfile /pki/CAR/private.pem", "bridge_tls_version tlsv1.2"}) {
		SCOPED_TRACE(line);
		EXPECT_THAT(text, HasSubstr("\n" + std::string(line) + "\n"));
	}
}
