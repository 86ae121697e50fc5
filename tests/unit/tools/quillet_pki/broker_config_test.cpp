#include "broker_config.h"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;
using testing::Not;

TEST(broker_rules, let_requesters_and_agents_reach_each_other_and_nobody_else)
{
	std::string rules = broker_rules({{"A1", "agent"}, {"A2", "agent"}, {"R1", "requester"}, {"R2", "requester"}});

	for (const char *line : {"allow R1 A1\n", "allow R1 A2\n", "allow R2 A1\n", "allow R2 A2\n", "allow A1 R1\n",
				 "allow A1 R2\n", "allow A2 R1\n", "allow A2 R2\n"}) {
		SCOPED_TRACE(line);
		EXPECT_THAT(rules, HasSubstr(line));
	}
	for (const char *line : {"allow A1 A", "allow A2 A", "allow R1 R", "allow R2 R", "*", "@"}) {
		SCOPED_TRACE(line);
		EXPECT_THAT(rules, Not(HasSubstr(line)));
	}
}

TEST(broker_rules, allow_nothing_while_there_are_no_nodes)
{
	EXPECT_THAT(broker_rules({}), Not(HasSubstr("\nallow")));
}

TEST(broker_rules, say_that_what_is_changed_by_hand_is_lost)
{
	EXPECT_THAT(broker_rules({}), HasSubstr("\n# quillet-pki writes it anew with each node"));
}

TEST(broker_rules, quote_a_name_with_a_blank)
{
	std::string rules = broker_rules({{"Unit 7", "agent"}, {"R1", "requester"}});

	EXPECT_THAT(rules, HasSubstr("allow R1 \"Unit 7\"\n"));
	EXPECT_THAT(rules, HasSubstr("allow \"Unit 7\" R1\n"));
}

TEST(broker_rules, pass_over_a_node_whose_role_is_neither)
{
	EXPECT_THAT(broker_rules({{"X", "gardener"}, {"R1", "requester"}}), Not(HasSubstr("\nallow")));
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
	std::string rules = broker_rules({{"B1", "bridge", {"A1", "A2"}}, {"R1", "requester"}, {"A3", "agent"}});

	for (const char *line : {"bridge B1 A1,A2\n", "allow R1 A1\n", "allow R1 A2\n", "allow R1 A3\n", "allow A1 R1\n",
				 "allow A2 R1\n"}) {
		SCOPED_TRACE(line);
		EXPECT_THAT(rules, HasSubstr(line));
	}
	for (const char *line : {"allow B1", " B1\n", "allow A1 A", "allow A3 A"}) {
		SCOPED_TRACE(line);
		EXPECT_THAT(rules, Not(HasSubstr(line)));
	}
}

TEST(broker_rules, let_the_peers_of_an_uplink_and_its_units_reach_each_other_and_nobody_else)
{
	std::string rules = broker_rules(
			{{"A1", "agent"}, {"A2", "agent"}, {"R1", "requester"}, {"B1", "uplink", {"A1"}, {"P1", "P2"}}});

	for (const char *line :
			{"bridge bridge/B1 P1,P2\n", "allow P1 A1\n", "allow P2 A1\n", "allow A1 P1\n", "allow A1 P2\n"}) {
		SCOPED_TRACE(line);
		EXPECT_THAT(rules, HasSubstr(line));
	}
	for (const char *line : {"allow P1 A2", "allow A2 P1", "allow P1 R1", "allow R1 P1", "allow P1 P2"}) {
		SCOPED_TRACE(line);
		EXPECT_THAT(rules, Not(HasSubstr(line)));
	}
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
