// The broker plugin's verdict, alone: rules, nodes, bridges.
#include "access.h"

#include "support/test_broker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace
{

send_rules parsed(std::string_view text)
{
	send_rules rules;
	std::string why;
	EXPECT_TRUE(rules_parse(text, &rules, &why)) << why;
	return rules;
}

class broker_access : public testing::Test
{
protected:
	bool allowed(const access_node &node, access_kind kind, const char *topic, bool retained = false)
	{
		return access_allowed(policy, node, {kind, topic, retained});
	}

	bool may_say(const access_node &node, const char *topic, std::string_view payload, bool adorned = false)
	{
		return access_allowed(policy, node, {access_kind::write, topic, true, payload, adorned});
	}

	access_policy policy;
	const access_node agent{.unit = "agent", .group = "vehicle"};
	const access_node loner{.unit = "loner", .group = ""};
	const access_node dm_client{.unit = "DM-CLIENT", .group = ""};
	const access_node away{.unit = "agent", .group = "", .away = true};
};

} // namespace

TEST(send_rules, allow_a_sender_by_name_or_group_and_a_destination_by_glob)
{
	struct row {
		const char *rules;
		bool allowed;
	};
	const row rows[] = {
			{"", false},
			{"allow agent target", true},
			{"allow other target", false},
			{"allow ag* target", false}, // a sender is no glob
			{"allow agent other", false},
			{"allow agent *", true},
			{"allow agent tar?et", true},
			{"allow agent t[a-c]rget", true},
			{"allow @vehicle target", true},
			{"allow @other target", false},
			{"allow vehicle target", false},
			{"allow @agent target", false},
			{"allow agent @target", false}, // that is a group
			{"# allow agent target", false},
			{"\n\n   \t\n  allow\tagent  target \r\n", true},
			{"allow other target\nallow agent target\n", true},
	};
	for (const row &row : rows) {
		SCOPED_TRACE(row.rules);
		EXPECT_EQ(rules_allow(parsed(row.rules), "agent", "vehicle", "target", false), row.allowed);
	}
}

TEST(send_rules, have_rules_of_their_own_for_groups)
{
	EXPECT_TRUE(rules_allow(parsed("allow a @fleet*"), "a", "", "fleet7", true));
	EXPECT_FALSE(rules_allow(parsed("allow a *"), "a", "", "fleet7", true));
	EXPECT_FALSE(rules_allow(parsed("allow @x @fleet7"), "a", "", "fleet7", true)) << "a sender without a group";
}

TEST(send_rules, keep_a_unit_and_a_group_of_one_name_apart)
{
	const send_rules rules = parsed("allow same by-unit\nallow @same by-group\nallow same @group-by-unit\n");
	EXPECT_TRUE(rules_allow(rules, "same", "", "by-unit", false));
	EXPECT_FALSE(rules_allow(rules, "same", "", "by-group", false));
	EXPECT_TRUE(rules_allow(rules, "other", "same", "by-group", false));
	EXPECT_FALSE(rules_allow(rules, "other", "same", "by-unit", false));
	EXPECT_FALSE(rules_allow(rules, "@same", "", "by-group", false));
	EXPECT_TRUE(rules_allow(rules, "same", "", "group-by-unit", true));
	EXPECT_FALSE(rules_allow(rules, "same", "", "group-by-unit", false));
}

TEST(send_rules, take_names_with_blanks_in_quotes)
{
	const send_rules rules = parsed("allow \"@Fleet A\" \"Unit 7\"\n");
	EXPECT_TRUE(rules_allow(rules, "x", "Fleet A", "Unit 7", false));
	EXPECT_FALSE(rules_allow(rules, "x", "Fleet", "Unit 7", false));
}

TEST(send_rules, give_a_role_to_each_unit_that_has_a_line_for_it)
{
	const send_rules rules = parsed("allow +boss +worker\nrole boss b1\nrole boss \"b 2\"\nrole worker w1\n"
									"role worker w2\nrole worker w2\nallow w2 +boss\nallow +boss @hall*\n"
									"allow @office +worker\nallow +idle *\n");
	const struct {
		const char *unit;
		const char *group;
		const char *destination;
		bool to_group;
		bool allowed;
	} rows[] = {
			{"b1", "", "w1", false, true},
			{"b 2", "", "w2", false, true},
			{"b1", "", "b1", false, false},
			{"w1", "", "b1", false, false}, // one way only
			{"w1", "", "w2", false, false},
			{"w2", "", "b 2", false, true},
			{"b1", "", "hall7", true, true},
			{"b1", "", "hall7", false, false},
			{"w1", "", "hall7", true, false},
			{"x", "office", "w1", false, true},
			{"x", "office", "b1", false, false},
			{"boss", "", "w1", false, false}, // the role's name is nobody's
			{"x", "boss", "w1", false, false},
			{"b1", "", "worker", false, false},
			{"b1", "", "w1", true, false},
			{"+boss", "", "w1", false, false},
			{"b", "", "w1", false, false},
			{"idle", "", "w1", false, false}, // nobody has it
			{"", "", "w1", false, false},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(testing::Message() << row.unit << " of " << row.group << " to " << row.destination);
		EXPECT_EQ(rules_allow(rules, row.unit, row.group, row.destination, row.to_group), row.allowed);
	}
	EXPECT_TRUE(rules_may_come(rules, "b1", "w1", false));
	EXPECT_FALSE(rules_may_come(rules, "w1", "b1", false));
}

TEST(send_rules, are_refused_whole_for_one_bad_line)
{
	for (const char *text : {"permit a b", "allow a", "allow a b c", "allow", "allow @ b", "allow a @", "allow \"a b",
				 "allow \"\" b", "allow a b\ndeny c d", "allow + b", "allow a +", "role", "role r", "role r a b",
				 "role +r a", "role @r a", "role r +a", "role r @a", "role r a*", "role \"\" a"}) {
		SCOPED_TRACE(text);
		send_rules rules = parsed("allow before before");
		std::string why;
		EXPECT_FALSE(rules_parse(text, &rules, &why));
		EXPECT_THAT(why, testing::HasSubstr("line "));
		EXPECT_TRUE(rules_allow(rules, "before", "", "before", false)) << "the old rules stay";
	}
}

TEST(send_rules, are_loaded_only_from_a_file_that_nobody_else_can_change)
{
	char folder[] = "/tmp/quillet_rules_XXXXXX";
	ASSERT_NE(mkdtemp(folder), nullptr);
	const std::string path = std::string(folder) + "/rules";
	send_rules rules;
	std::string why;

	EXPECT_FALSE(rules_load(path.c_str(), &rules, &why)) << "there is none";
	test_write_file(path, "allow a b\n");
	EXPECT_TRUE(rules_load(path.c_str(), &rules, &why)) << why;
	EXPECT_TRUE(rules_allow(rules, "a", "", "b", false));
	for (const mode_t mode : {0620, 0602}) {
		SCOPED_TRACE(mode);
		ASSERT_EQ(chmod(path.c_str(), mode), 0);
		EXPECT_FALSE(rules_load(path.c_str(), &rules, &why));
	}
	EXPECT_FALSE(rules_load(folder, &rules, &why)) << "a folder";
	unlink(path.c_str());
	test_write_file(path, std::string((16 << 20) + 1, '#'));
	EXPECT_FALSE(rules_load(path.c_str(), &rules, &why));
	EXPECT_EQ(why, "more than 16777216 bytes: a role or a glob can stand for many units");
	unlink(path.c_str());
	rmdir(folder);
}

TEST_F(broker_access, lets_a_node_write_its_own_status_only)
{
	EXPECT_TRUE(allowed(agent, access_kind::write, "movra/v1/status/vehicle/agent", true));
	EXPECT_TRUE(allowed(loner, access_kind::write, "movra/v1/status//loner", true));
	for (const char *topic : {"movra/v1/status/vehicle/other", "movra/v1/status/other/agent", "movra/v1/status//agent"})
		EXPECT_FALSE(allowed(agent, access_kind::write, topic, true)) << topic;
	EXPECT_FALSE(allowed(away, access_kind::write, "movra/v1/status//agent", true));
}

// What a status says goes to a whole group, is kept, and no rule is asked about it.
TEST_F(broker_access, lets_a_status_say_what_presence_says_and_nothing_else)
{
	policy.rules = parsed("bridge bridge agent\nbridge bridge/up agent\n");
	const access_node bridge{.unit = "bridge", .group = ""};
	const access_node far{.unit = "bridge/up", .group = "", .local = true};
	const char *topic = "movra/v1/status/vehicle/agent";
	for (const access_node *who : {&agent, &bridge, &far}) {
		SCOPED_TRACE(who->unit);
		for (const char *text : {"on", "off", ""}) {
			EXPECT_TRUE(may_say(*who, topic, text)) << text;
			EXPECT_FALSE(may_say(*who, topic, text, true)) << text << " with properties";
		}
		for (const std::string_view text : std::initializer_list<std::string_view>{
					 "On", "on ", "of", "o", "offf", "x", std::string_view("on\0", 3), std::string_view("\0", 1)})
			EXPECT_FALSE(may_say(*who, topic, text)) << text;
		EXPECT_FALSE(may_say(*who, topic, std::string(12'000'000, 'x')));
	}
}

TEST_F(broker_access, lets_an_inbox_be_sent_anything)
{
	policy.rules = parsed("allow agent target\n");
	const std::string large(1 << 24, 'x');
	EXPECT_TRUE(access_allowed(policy, agent, {access_kind::write, "movra/v1/ua/target/agent", false, large, true}));
}

class groups_of_bridged_units : public testing::Test
{
protected:
	bool taken(const std::string &group, const std::string &unit = "a")
	{
		return access_note_group(&groups, policy, bridge, "movra/v1/status/" + group + "/" + unit);
	}

	access_policy policy{parsed("bridge bridge a,b\n"), {}};
	const access_node bridge{.unit = "bridge", .group = ""};
	bridged_groups groups;
};

TEST_F(groups_of_bridged_units, are_taken_up_to_a_number_for_each_unit)
{
	for (size_t i = 0; i < bridged_groups_max; i++)
		EXPECT_TRUE(taken("group" + std::to_string(i)));
	for (size_t i = 0; i < 1000; i++)
		EXPECT_FALSE(taken("more" + std::to_string(i)));
	EXPECT_TRUE(taken("group0")) << "a known one";
	EXPECT_TRUE(taken("more", "b")) << "another unit";
	EXPECT_EQ(groups.size(), 2u);
	EXPECT_EQ(groups["a"].size(), bridged_groups_max);
}

TEST_F(groups_of_bridged_units, are_none_longer_than_a_name_can_be)
{
	EXPECT_TRUE(taken(""));
	EXPECT_TRUE(taken(std::string(128, 'g')));
	EXPECT_FALSE(taken(std::string(129, 'g')));
}

TEST_F(groups_of_bridged_units, are_not_counted_for_nodes_and_inboxes)
{
	const access_node node{.unit = "node", .group = "vehicle"};
	for (size_t i = 0; i < 3 * bridged_groups_max; i++) {
		const std::string name = std::to_string(i);
		EXPECT_TRUE(access_note_group(&groups, policy, node, "movra/v1/status/" + name + "/node"));
		EXPECT_TRUE(access_note_group(&groups, policy, bridge, "movra/v1/ua/" + name + "/a"));
	}
	EXPECT_TRUE(groups.empty());
}

TEST_F(broker_access, lets_a_node_send_under_its_name_where_the_rules_say)
{
	policy.rules = parsed("allow agent target\nallow agent @fleet\nallow agent DM-CLIENT\n");
	EXPECT_TRUE(allowed(agent, access_kind::write, "movra/v1/ua/target/agent"));
	EXPECT_TRUE(allowed(agent, access_kind::write, "movra/v1/grp/fleet/agent"));
	EXPECT_TRUE(allowed(agent, access_kind::write, "movra/v1/special/0/agent"));
	EXPECT_TRUE(allowed(agent, access_kind::write, "movra/v1/ua/DM-CLIENT/agent"));

	EXPECT_FALSE(allowed(agent, access_kind::write, "movra/v1/ua/target/agent", true)) << "kept";
	EXPECT_FALSE(allowed(away, access_kind::write, "movra/v1/ua/target/agent"));
	EXPECT_FALSE(allowed({}, access_kind::write, "movra/v1/ua/target/")) << "no name";
	for (const char *topic : {"movra/v1/ua/target/other", "movra/v1/ua/other/agent", "movra/v1/grp/target/agent",
				 "movra/v1/ua/fleet/agent", "movra/v1/special/1/agent", "movra/v1/special/00/agent",
				 "movra/v1/ua/target/agent/x", "movra/v1/ua/target", "movra/v2/ua/target/agent", "other", ""})
		EXPECT_FALSE(allowed(agent, access_kind::write, topic)) << topic;
}

TEST_F(broker_access, refuses_a_send_to_nobody_whatever_the_rules_say)
{
	policy.rules = parsed("allow agent *\nallow agent @*\n");
	EXPECT_TRUE(allowed(agent, access_kind::write, "movra/v1/ua/any/agent"));
	EXPECT_FALSE(allowed(agent, access_kind::write, "movra/v1/ua//agent"));
	EXPECT_FALSE(allowed(agent, access_kind::write, "movra/v1/grp//agent"));
}

TEST_F(broker_access, grants_nothing_to_a_name_that_is_none)
{
	const access_node unfit{.unit = "agent", .group = "vehicle", .unfit = true};
	policy.rules = parsed("allow agent target\n");
	EXPECT_FALSE(allowed(unfit, access_kind::write, "movra/v1/ua/target/agent"));
	EXPECT_FALSE(allowed(unfit, access_kind::write, "movra/v1/status/vehicle/agent", true));
	EXPECT_FALSE(allowed(unfit, access_kind::subscribe, "movra/v1/ua/agent/+"));
	EXPECT_FALSE(allowed(unfit, access_kind::read, "movra/v1/ua/agent/x"));
}

TEST_F(broker_access, refuses_every_send_without_rules)
{
	EXPECT_FALSE(allowed(agent, access_kind::write, "movra/v1/ua/target/agent"));
	EXPECT_FALSE(allowed(dm_client, access_kind::write, "movra/v1/ua/target/DM-CLIENT"));
}

TEST_F(broker_access, lets_a_node_subscribe_to_its_own)
{
	for (const char *filter : {"movra/v1/ua/agent/+", "movra/v1/grp/vehicle/+", "movra/v1/status/vehicle/+",
				 "movra/v1/status/+/DM-CLIENT"})
		EXPECT_TRUE(allowed(agent, access_kind::subscribe, filter)) << filter;
	EXPECT_TRUE(allowed(dm_client, access_kind::subscribe, "movra/v1/special/0/+"));
	for (const char *filter : {"#", "+/+/+/+/+", "movra/v1/#", "movra/v1/ua/agent/#", "movra/v1/ua/+/+",
				 "movra/v1/ua/other/+", "movra/v1/ua/agent/x", "movra/v1/grp/other/+", "movra/v1/grp/+/+",
				 "movra/v1/special/0/+", "movra/v1/status/+/+", "movra/v1/status/+/agent", "movra/v1/status/+/#",
				 "movra/v1/status/other/+", "movra/v1/+/agent/+", "$share/x/movra/v1/ua/agent/+"})
		EXPECT_FALSE(allowed(agent, access_kind::subscribe, filter)) << filter;
	EXPECT_FALSE(allowed(loner, access_kind::subscribe, "movra/v1/status//+"));
	EXPECT_FALSE(allowed(loner, access_kind::subscribe, "movra/v1/grp//+"));
	EXPECT_FALSE(allowed(dm_client, access_kind::subscribe, "movra/v1/special/1/+"));
	EXPECT_FALSE(allowed(away, access_kind::subscribe, "movra/v1/ua/agent/+"));
}

TEST_F(broker_access, delivers_to_a_node_what_is_its_own)
{
	policy.rules = parsed("allow x *\nallow x @*\n");
	for (const char *topic : {"movra/v1/ua/agent/x", "movra/v1/grp/vehicle/x", "movra/v1/status/vehicle/x",
				 "movra/v1/status/any/DM-CLIENT", "movra/v1/status//DM-CLIENT"})
		EXPECT_TRUE(allowed(agent, access_kind::read, topic)) << topic;
	for (const char *topic : {"movra/v1/ua/other/x", "movra/v1/grp/other/x", "movra/v1/status/other/x",
				 "movra/v1/special/0/x", "$SYS/broker/uptime"})
		EXPECT_FALSE(allowed(agent, access_kind::read, topic)) << topic;
	EXPECT_TRUE(allowed(dm_client, access_kind::read, "movra/v1/special/0/x"));
}

TEST_F(broker_access, delivers_nothing_whose_sender_may_send_it_no_more)
{
	const access_node bridge{.unit = "bridge", .group = ""};
	policy.rules = parsed("bridge bridge a\nallow x agent\nallow x a\n");
	EXPECT_TRUE(allowed(agent, access_kind::read, "movra/v1/ua/agent/x"));
	EXPECT_TRUE(allowed(bridge, access_kind::read, "movra/v1/ua/a/x"));

	policy.rules = parsed("bridge bridge a\nallow x other\nallow y agent\n");
	for (const access_node &node : {agent, away})
		EXPECT_FALSE(allowed(node, access_kind::read, "movra/v1/ua/agent/x"));
	EXPECT_FALSE(allowed(bridge, access_kind::read, "movra/v1/ua/a/x"));
	EXPECT_FALSE(allowed(agent, access_kind::read, "movra/v1/grp/vehicle/x"));
	EXPECT_FALSE(allowed(dm_client, access_kind::read, "movra/v1/special/0/x"));
	EXPECT_TRUE(allowed(agent, access_kind::read, "movra/v1/status/vehicle/x"));
}

TEST_F(broker_access, delivers_by_the_rules_of_any_group_because_the_senders_is_not_known)
{
	policy.rules = parsed("allow @backend agent\n");
	EXPECT_TRUE(allowed(agent, access_kind::read, "movra/v1/ua/agent/x"));
	EXPECT_FALSE(allowed(agent, access_kind::read, "movra/v1/grp/vehicle/x"));
}

TEST_F(broker_access, keeps_messages_for_a_node_that_is_away)
{
	policy.rules = parsed("allow x *\nallow x @*\n");
	EXPECT_TRUE(allowed(away, access_kind::read, "movra/v1/ua/agent/x"));
	EXPECT_TRUE(allowed(away, access_kind::read, "movra/v1/grp/any/x"));
	EXPECT_FALSE(allowed(away, access_kind::read, "movra/v1/ua/other/x"));
}

TEST_F(broker_access, takes_a_bridge_only_with_a_name_and_units)
{
	EXPECT_TRUE(access_add_bridge(&policy, "bridge a,b"));
	EXPECT_TRUE(access_add_bridge(&policy, "bridge c"));
	EXPECT_EQ(policy.bridges["bridge"].size(), 3u);
	for (const char *text : {"", "bridge", "bridge ", " a", "bridge a b", "bridge a,,b", "bridge a/b", "bridge +"})
		EXPECT_FALSE(access_add_bridge(&policy, text)) << text;
}

TEST_F(broker_access, lets_a_bridge_speak_for_its_units_within_the_rules)
{
	const access_node bridge{.unit = "bridge", .group = "vehicle"};
	ASSERT_TRUE(access_add_bridge(&policy, "bridge a,b"));
	policy.rules = parsed("allow a target\nallow @vehicle requester\nallow bridge *\n");

	EXPECT_TRUE(allowed(bridge, access_kind::write, "movra/v1/ua/target/a"));
	EXPECT_TRUE(allowed(bridge, access_kind::write, "movra/v1/ua/requester/b"));
	EXPECT_TRUE(allowed(bridge, access_kind::write, "movra/v1/status/any/a", true));
	EXPECT_FALSE(allowed(bridge, access_kind::write, "movra/v1/ua/target/b")) << "no rule";
	EXPECT_FALSE(allowed(bridge, access_kind::write, "movra/v1/ua/target/bridge")) << "not its own name";
	EXPECT_FALSE(allowed(bridge, access_kind::write, "movra/v1/ua/target/c"));
	EXPECT_FALSE(allowed(bridge, access_kind::write, "movra/v1/status/any/c", true));

	EXPECT_TRUE(allowed(bridge, access_kind::subscribe, "movra/v1/ua/a/+"));
	for (const access_kind kind : {access_kind::read, access_kind::subscribe}) {
		EXPECT_TRUE(allowed(bridge, kind, "movra/v1/status/+/b"));
		EXPECT_FALSE(allowed(bridge, kind, "movra/v1/ua/c/+"));
		EXPECT_FALSE(allowed(bridge, kind, "movra/v1/ua/+/+"));
		EXPECT_FALSE(allowed(bridge, kind, "movra/v1/status/+/+"));
		EXPECT_FALSE(allowed(bridge, kind, "movra/v1/grp/vehicle/+"));
	}
	EXPECT_FALSE(allowed(bridge, access_kind::subscribe, "movra/v1/ua/a/#"));
}

TEST(send_rules, name_bridges_and_their_units)
{
	const send_rules rules = parsed("bridge B1 a,b\nbridge bridge/up \"Unit 7,c\"\nbridge B1 d\n");

	EXPECT_EQ(rules.bridges.at("B1"), (std::set<std::string>{"a", "b", "d"}));
	EXPECT_EQ(rules.bridges.at("bridge/up"), (std::set<std::string>{"Unit 7", "c"}));
	EXPECT_TRUE(rules.units.empty());
}

TEST(send_rules, are_refused_whole_for_one_bad_bridge)
{
	for (const char *text : {"bridge", "bridge B1", "bridge B1 a b", "bridge B1 a,,b", "bridge B1 ,", "bridge B1 a/b",
				 "bridge B1 +", "bridge B1 a#"}) {
		SCOPED_TRACE(text);
		send_rules rules = parsed("bridge before a");
		std::string why;
		EXPECT_FALSE(rules_parse(text, &rules, &why));
		EXPECT_THAT(why, testing::HasSubstr("bridge <name> <unit>"));
		EXPECT_EQ(rules.bridges.size(), 1u);
	}
}

TEST_F(broker_access, takes_bridges_from_the_rules_as_from_the_configuration)
{
	const access_node bridge{.unit = "bridge", .group = ""};
	ASSERT_TRUE(access_add_bridge(&policy, "bridge a"));
	policy.rules = parsed("bridge bridge b\nbridge other c\nallow a target\nallow b target\nallow c target\n");

	EXPECT_TRUE(allowed(bridge, access_kind::write, "movra/v1/ua/target/a"));
	EXPECT_TRUE(allowed(bridge, access_kind::write, "movra/v1/ua/target/b"));
	EXPECT_FALSE(allowed(bridge, access_kind::write, "movra/v1/ua/target/c"));
	EXPECT_TRUE(allowed(bridge, access_kind::subscribe, "movra/v1/ua/b/+"));
	EXPECT_FALSE(allowed(bridge, access_kind::subscribe, "movra/v1/ua/c/+"));
}

TEST_F(broker_access, gives_the_special_inbox_to_the_bridge_of_the_dm_client_only)
{
	policy.rules = parsed("bridge one DM-CLIENT\nbridge two a\nallow x *\n");
	const struct {
		access_kind kind;
		std::string sender;
	} rows[] = {{access_kind::read, "x"}, {access_kind::subscribe, "+"}};
	for (const auto &[kind, sender] : rows) {
		EXPECT_TRUE(allowed({.unit = "one", .group = ""}, kind, ("movra/v1/special/0/" + sender).c_str()));
		EXPECT_FALSE(allowed({.unit = "one", .group = ""}, kind, ("movra/v1/special/1/" + sender).c_str()));
		EXPECT_FALSE(allowed({.unit = "two", .group = ""}, kind, ("movra/v1/special/0/" + sender).c_str()));
	}
}

TEST_F(broker_access, takes_from_the_far_end_of_a_bridge_only_whom_it_lists_within_the_rules)
{
	policy.rules = parsed("bridge bridge/up tester,mute\nallow tester agent\nallow agent tester\nallow agent other\n");
	const access_node far{.unit = "bridge/up", .group = "", .local = true};

	EXPECT_TRUE(allowed(far, access_kind::write, "movra/v1/ua/agent/tester"));
	const struct {
		const char *topic;
		const char *what;
	} rows[] = {
			{"movra/v1/ua/agent/mute", "no rule"},
			{"movra/v1/ua/agent/stranger", "not of the list"},
			{"movra/v1/ua/other/agent", "a unit of this side"},
			{"movra/v1/ua/tester/agent", "an answer that was never given"},
			{"movra/v1/ua/other/tester", "no rule for that unit"},
			{"movra/v1/grp/vehicle/tester", "no rule for the group"},
			{"movra/v1/status/vehicle/agent", "another's status"},
			{"movra/v1/ua/agent/bridge/up", "its own name"},
			{"anything", "no topic of the bus"},
	};
	for (const auto &row : rows)
		EXPECT_FALSE(allowed(far, access_kind::write, row.topic)) << row.what;
	EXPECT_FALSE(allowed(far, access_kind::write, "movra/v1/ua/agent/tester", true)) << "kept";
}

TEST_F(broker_access, gives_a_local_bridges_rights_to_no_certificate_and_no_others_to_it)
{
	policy.rules = parsed("bridge bridge/up tester\nbridge B1 tester\nallow tester agent\n");
	const char *topic = "movra/v1/ua/agent/tester";

	EXPECT_TRUE(allowed({.unit = "bridge/up", .group = "", .local = true}, access_kind::write, topic));
	EXPECT_FALSE(allowed({.unit = "bridge/up", .group = ""}, access_kind::write, topic)) << "a certificate";
	EXPECT_FALSE(allowed({.unit = "B1", .group = "", .local = true}, access_kind::write, topic)) << "not a local name";
	EXPECT_FALSE(allowed({.unit = "bridge/x", .group = "", .local = true}, access_kind::write, topic)) << "not listed";
	EXPECT_FALSE(allowed({.unit = "", .group = "", .local = true}, access_kind::write, topic)) << "no name";
	EXPECT_FALSE(allowed({.unit = "tester", .group = "", .local = true}, access_kind::write, topic)) << "no bridge";
}
