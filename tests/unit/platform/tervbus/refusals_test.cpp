// What the broker's log says about refusals, alone: causes, and how often each is told.
#include "refusals.h"

#include <gtest/gtest.h>

namespace
{

class refusals : public testing::Test
{
protected:
	std::string told(const access_node &who, const access_wish &wish, time_t now)
	{
		EXPECT_FALSE(access_allowed(policy, who, wish)) << wish.topic;
		return refusal_line(&log, who.unit, wish, refusal_cause(policy, who, wish), now);
	}

	access_policy policy;
	refusal_log log;
	const access_node node{.unit = "node", .group = "vehicle"};
	const access_wish foreign{access_kind::write, "movra/v1/ua/target/other"};
};

constexpr const char *nameless = "its certificate has not exactly one CN that can be a name";
constexpr const char *is_away = "it is away, and its certificate is not at hand";
constexpr const char *of_the_broker = "the bus has no topics that begin with '$' and no shared subscriptions";
constexpr const char *wildcard = "a wildcard stands for other nodes' addresses";
constexpr const char *no_topic = "that is no topic of the bus";
constexpr const char *other_unit = "the bridge does not speak for that unit";
constexpr const char *other_sender = "the sender in the topic is another node";
constexpr const char *other_group = "that is the status of another group";
constexpr const char *no_presence = "a status says on, off or nothing, and has no properties but its expiry";
constexpr const char *kept = "an inbox keeps no retained messages";
constexpr const char *not_its_own = "that is neither its own inbox nor a status of its group";
constexpr const char *no_rule = "no rule allows it";

} // namespace

TEST_F(refusals, name_their_cause)
{
	const access_node unfit{.unit = "a/b", .group = "", .unfit = true};
	const access_node bridge{.unit = "bridge", .group = ""};
	ASSERT_TRUE(access_add_bridge(&policy, "bridge a,b"));
	struct row {
		const access_node &who;
		access_wish wish;
		const char *cause;
	};
	const access_node nobody{};
	const access_node away{.unit = "node", .group = "", .away = true};
	const row rows[] = {
			{nobody, {access_kind::write, "movra/v1/ua/target/"}, nameless},
			{unfit, {access_kind::subscribe, "movra/v1/ua/a/b/+"}, nameless},
			{unfit, {access_kind::subscribe, "movra/v1/status/+/DM-CLIENT"}, nameless},
			{away, {access_kind::write, "movra/v1/status/vehicle/node", true}, is_away},
			{node, {access_kind::subscribe, "$SYS/#"}, of_the_broker},
			{node, {access_kind::subscribe, "$share/x/movra/v1/ua/node/+"}, of_the_broker},
			{node, {access_kind::write, "$SYS/broker/uptime"}, of_the_broker},
			{node, {access_kind::subscribe, "#"}, wildcard},
			{node, {access_kind::subscribe, "movra/v1/#"}, wildcard},
			{node, {access_kind::subscribe, "movra/v1/ua/+/+"}, wildcard},
			{node, {access_kind::subscribe, "movra/v1/status/+/+"}, wildcard},
			{node, {access_kind::subscribe, "movra/v1/status/+/#"}, wildcard},
			{node, {access_kind::subscribe, "+/v1/ua/node/+"}, no_topic},
			{node, {access_kind::write, ""}, no_topic},
			{node, {access_kind::write, "movra/v1/ua/target"}, no_topic},
			{node, {access_kind::write, "movra/v1/ua/target/node/x"}, no_topic},
			{node, {access_kind::write, "movra/v1/ua//node"}, no_topic},
			{node, {access_kind::write, "movra/v1/other/target/node"}, no_topic},
			{node, {access_kind::write, "movra/v2/ua/target/node"}, no_topic},
			{bridge, {access_kind::write, "movra/v1/ua/target/c"}, other_unit},
			{bridge, {access_kind::write, "movra/v1/status/any/c", true}, other_unit},
			{bridge, {access_kind::subscribe, "movra/v1/ua/c/+"}, other_unit},
			{bridge, {access_kind::subscribe, "movra/v1/status/+/c"}, other_unit},
			{bridge, {access_kind::read, "movra/v1/ua/c/a"}, other_unit},
			{bridge, {access_kind::write, "movra/v1/ua/target/a"}, no_rule},
			{bridge, {access_kind::write, "movra/v1/ua/target/a", true}, kept},
			{node, {access_kind::write, "movra/v1/ua/target/other"}, other_sender},
			{node, {access_kind::write, "movra/v1/status/vehicle/other", true}, other_sender},
			{node, {access_kind::write, "movra/v1/status/other/node", true}, other_group},
			{node, {access_kind::write, "movra/v1/status/other/node", true, "x"}, other_group},
			{node, {access_kind::write, "movra/v1/status/vehicle/node", true, "x"}, no_presence},
			{node, {access_kind::write, "movra/v1/status/vehicle/node", true, "on", true}, no_presence},
			{bridge, {access_kind::write, "movra/v1/status/any/a", true, "x"}, no_presence},
			{bridge, {access_kind::write, "movra/v1/status/any/c", true, "x"}, other_unit},
			{node, {access_kind::write, "movra/v1/ua/target/node", true}, kept},
			{node, {access_kind::subscribe, "movra/v1/ua/other/+"}, not_its_own},
			{node, {access_kind::subscribe, "movra/v1/special/0/+"}, not_its_own},
			{node, {access_kind::read, "movra/v1/ua/other/node"}, not_its_own},
			{node, {access_kind::read, "movra/v1/ua/node/other"}, no_rule},
			{node, {access_kind::write, "movra/v1/ua/target/node"}, no_rule},
			{node, {access_kind::write, "movra/v1/grp/fleet/node"}, no_rule},
			{node, {access_kind::write, "movra/v1/special/7/node"}, no_rule},
	};
	for (const row &row : rows) {
		SCOPED_TRACE(row.wish.topic);
		EXPECT_FALSE(access_allowed(policy, row.who, row.wish));
		EXPECT_STREQ(refusal_cause(policy, row.who, row.wish), row.cause);
	}
}

TEST_F(refusals, are_one_line_with_client_wish_and_topic)
{
	EXPECT_EQ(told(node, foreign, 1000),
			"quillet: node may not publish to movra/v1/ua/target/other: the sender in the topic is another node");
	EXPECT_EQ(told(node, {access_kind::subscribe, "#"}, 1000),
			"quillet: node may not subscribe to #: a wildcard stands for other nodes' addresses");
	EXPECT_EQ(told(node, {access_kind::read, "movra/v1/ua/other/node"}, 1000),
			"quillet: node may not be delivered movra/v1/ua/other/node: that is neither its own inbox nor a status of "
			"its group");
}

TEST_F(refusals, show_a_hostile_topic_cut_and_on_one_line)
{
	EXPECT_EQ(told(node, {access_kind::write, "a\nb\x7F"}, 1000),
			"quillet: node may not publish to a?b?: that is no topic of the bus");
	const access_node other{.unit = "other", .group = ""};
	EXPECT_EQ(told(other, {access_kind::write, std::string(65535, 'x')}, 1000),
			"quillet: other may not publish to " + std::string(160, 'x') + "...: that is no topic of the bus");
}

TEST_F(refusals, are_told_again_after_a_minute_with_their_number)
{
	EXPECT_NE(told(node, foreign, 1000), "");
	for (time_t now = 1000; now < 1060; now++)
		EXPECT_EQ(told(node, foreign, now), "");
	EXPECT_EQ(told(node, foreign, 1060),
			"quillet: node may not publish to movra/v1/ua/target/other: the sender in the topic is another node (60 "
			"more like it since the last such line)");
	EXPECT_EQ(told(node, foreign, 1061), "");
	EXPECT_EQ(told(node, foreign, 1200),
			"quillet: node may not publish to movra/v1/ua/target/other: the sender in the topic is another node (1 "
			"more like it since the last such line)");
}

TEST_F(refusals, are_counted_for_each_client_and_cause)
{
	const access_node second{.unit = "second", .group = ""};
	EXPECT_NE(told(node, foreign, 1000), "");
	EXPECT_NE(told(second, foreign, 1000), "");
	EXPECT_NE(told(node, {access_kind::subscribe, "#"}, 1000), "");
	EXPECT_EQ(told(second, foreign, 1000), "");
}

TEST_F(refusals, of_very_many_clients_are_bounded)
{
	size_t lines = 0;
	for (size_t i = 0; i < 10 * refusal_notes_max; i++)
		lines += told({.unit = "unit" + std::to_string(i), .group = ""}, foreign, 1000).empty() ? 0 : 1;
	EXPECT_EQ(lines, refusal_notes_max);
	EXPECT_EQ(log.notes.size(), refusal_notes_max);
	EXPECT_NE(told({.unit = "later", .group = ""}, foreign, 1060), "") << "the others have been quiet";
}
