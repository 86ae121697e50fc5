// The broker plugin as mosquitto meets it: what it is asked, and what it says in the log.
#include "plugin_host.h"

#include "support/test_broker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mqtt_protocol.h>

#include <filesystem>

namespace
{

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *no_presence = "a status says on, off or nothing, and has no properties but its expiry";
constexpr const char *many_groups =
		"a bridge may name 4 groups for a unit, of 128 bytes at most, until the broker is started anew";

class broker_plugin : public testing::Test
{
protected:
	void SetUp() override
	{
		std::string name = fs::temp_directory_path() / "plugin-XXXXXX";
		folder = mkdtemp(name.data());
		test_write_file(folder + "/rules", "allow node target\nallow @vehicle base\nbridge bridge/up far\n");
	}

	void TearDown() override
	{
		host.unload();
		mosquitto_property_free_all(&properties);
		fs::remove_all(folder);
	}

	void load(std::vector<std::string> more = {})
	{
		more.push_back("rules " + folder + "/rules");
		ASSERT_TRUE(host.load(more)) << testing::PrintToString(host.said());
	}

	host_publish status(const std::string &group, const std::string &unit, const std::string &text = "on")
	{
		return {"movra/v1/status/" + group + "/" + unit, text, true, properties};
	}

	host_publish request(const std::string &payload = "{}")
	{
		mosquitto_property_free_all(&properties);
		mosquitto_property_add_string_pair(
				&properties, MQTT_PROP_USER_PROPERTY, "movra-id", "0123456789abcdef0123456789abcdef");
		return {"movra/v1/ua/target/node", payload, false, properties};
	}

	std::string folder;
	plugin_host host;
	mosquitto_property *properties = nullptr;
};

} // namespace

TEST_F(broker_plugin, takes_a_status_that_is_one)
{
	load();
	mosquitto *node = host.client("node", "vehicle");
	mosquitto_property_add_int32(&properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, 180);
	for (const char *text : {"on", "off", ""})
		EXPECT_EQ(host.publish(node, status("vehicle", "node", text)), MOSQ_ERR_SUCCESS) << text;
	EXPECT_THAT(host.said(), IsEmpty());
}

TEST_F(broker_plugin, refuses_a_status_with_another_text)
{
	load();
	mosquitto *node = host.client("node", "vehicle");
	EXPECT_EQ(host.acl(node, MOSQ_ACL_WRITE, status("vehicle", "node", std::string(12'000'000, 'x'))),
			MOSQ_ERR_ACL_DENIED);
	EXPECT_THAT(host.said(),
			ElementsAre(std::string("quillet: node may not publish to movra/v1/status/vehicle/node: ") + no_presence));
}

TEST_F(broker_plugin, refuses_a_status_with_properties)
{
	load();
	mosquitto *node = host.client("node", "vehicle");
	mosquitto_property_add_int32(&properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, 180);
	mosquitto_property_add_string_pair(&properties, MQTT_PROP_USER_PROPERTY, "name", "value");
	EXPECT_EQ(host.publish(node, status("vehicle", "node")), MOSQ_ERR_ACL_DENIED);
	EXPECT_THAT(host.said(),
			ElementsAre(std::string("quillet: node may not publish to movra/v1/status/vehicle/node: ") + no_presence));
}

TEST_F(broker_plugin, refuses_what_is_no_status_from_a_bridge_of_the_broker_itself)
{
	load();
	mosquitto *bridge = host.own_bridge("bridge/up");
	EXPECT_EQ(host.message(bridge, status("fleet", "far", "off")), MOSQ_ERR_SUCCESS);
	EXPECT_EQ(host.message(bridge, status("fleet", "far", "x")), MOSQ_ERR_ACL_DENIED);
	mosquitto_property_add_string(&properties, MQTT_PROP_CONTENT_TYPE, "text/plain");
	EXPECT_EQ(host.message(bridge, status("fleet", "far")), MOSQ_ERR_ACL_DENIED);
}

TEST_F(broker_plugin, lets_a_request_have_any_payload_and_properties)
{
	load();
	EXPECT_EQ(host.publish(host.client("node"), request(std::string(1 << 20, 'x'))), MOSQ_ERR_SUCCESS);
}

TEST_F(broker_plugin, takes_the_groups_that_bridges_name_up_to_a_number)
{
	load({"bridge up unit"});
	for (mosquitto *bridge : {host.client("up"), host.own_bridge("bridge/up")}) {
		const std::string unit = bridge->address.empty() ? "far" : "unit";
		const auto write = [&](const std::string &group) {
			return bridge->address.empty() ? host.message(bridge, status(group, unit))
										   : host.publish(bridge, status(group, unit));
		};
		for (const char *group : {"1", "2", "3", "4"})
			EXPECT_EQ(write(group), MOSQ_ERR_SUCCESS);
		EXPECT_EQ(write("5"), MOSQ_ERR_ACL_DENIED);
		EXPECT_EQ(write("1"), MOSQ_ERR_SUCCESS);
		EXPECT_THAT(host.said(),
				ElementsAre("quillet: " + bridge->name + " may not publish to movra/v1/status/5/" + unit + ": " +
						many_groups));
	}
}

// Before it gives away what it has kept, mosquitto asks whether its writer might still write it. After a new start that
// may be anything that a bridge has ever written.
TEST_F(broker_plugin, does_not_count_the_groups_of_what_the_broker_has_kept)
{
	load({"bridge up unit"});
	mosquitto *bridge = host.client("up");
	ASSERT_EQ(host.acl(bridge, MOSQ_ACL_SUBSCRIBE, {"movra/v1/ua/unit/+", "", false}), MOSQ_ERR_SUCCESS);
	mosquitto *name_of_it = host.without_certificate("up");
	name_of_it->protocol = 0;
	name_of_it->address.clear();
	for (int i = 0; i < 20; i++)
		EXPECT_EQ(host.acl(name_of_it, MOSQ_ACL_WRITE, status("kept" + std::to_string(i), "unit")), MOSQ_ERR_SUCCESS);
	EXPECT_EQ(host.publish(bridge, status("now", "unit")), MOSQ_ERR_SUCCESS);
}

TEST_F(broker_plugin, says_a_refusal_again_after_a_minute_whatever_becomes_of_the_wall_clock)
{
	load();
	mosquitto *node = host.client("node");
	const host_publish forged{"movra/v1/ua/target/other", "x", false};
	host.set_wall_clock(1'700'000'000);
	host.set_boot_clock(1000);
	EXPECT_EQ(host.publish(node, forged), MOSQ_ERR_ACL_DENIED);
	EXPECT_EQ(host.said().size(), 1u);

	host.set_wall_clock(0);
	host.set_boot_clock(1059);
	EXPECT_EQ(host.publish(node, forged), MOSQ_ERR_ACL_DENIED);
	EXPECT_THAT(host.said(), IsEmpty());
	host.set_boot_clock(1060);
	EXPECT_EQ(host.publish(node, forged), MOSQ_ERR_ACL_DENIED);
	EXPECT_EQ(host.said().size(), 1u);
}

TEST_F(broker_plugin, forgets_the_group_of_who_has_gone_after_a_while_whatever_becomes_of_the_wall_clock)
{
	load();
	host.set_wall_clock(1'700'000'000);
	host.set_boot_clock(1000);
	mosquitto *node = host.client("node", "vehicle");
	mosquitto *other = host.client("other");
	for (mosquitto *each : {node, other})
		EXPECT_EQ(
				host.acl(each, MOSQ_ACL_SUBSCRIBE, {"movra/v1/ua/" + each->name + "/+", "", false}), MOSQ_ERR_SUCCESS);
	host.disconnect(node);
	const host_publish will{"movra/v1/ua/base/node", "x", false};

	host.set_wall_clock(1'800'000'000);
	host.set_boot_clock(1120);
	EXPECT_EQ(host.acl(node, MOSQ_ACL_WRITE, will), MOSQ_ERR_SUCCESS);
	host.set_wall_clock(0);
	host.set_boot_clock(1121);
	host.disconnect(other);
	EXPECT_EQ(host.acl(node, MOSQ_ACL_WRITE, will), MOSQ_ERR_ACL_DENIED);
}

TEST_F(broker_plugin, says_which_options_there_are)
{
	for (const char *option : {"rule /rules", "bridge no-units"}) {
		EXPECT_FALSE(host.load({option}));
		EXPECT_THAT(host.said(),
				ElementsAre(std::string("quillet: plugin_opt_") + option +
						" is not understood: there are plugin_opt_rules <file>, plugin_opt_persistence <folder> and "
						"plugin_opt_bridge <name> <unit>,<unit>..."));
	}
}

TEST_F(broker_plugin, says_what_to_do_about_a_journal_that_is_another_file_too)
{
	test_write_file(folder + "/other", "precious");
	fs::create_hard_link(folder + "/other", folder + "/unsaved.journal");
	EXPECT_FALSE(host.load({"persistence " + folder}));
	EXPECT_THAT(host.said(),
			ElementsAre("quillet: " + folder +
					"/unsaved.journal is no file of its own: remove it, the broker makes a new one"));
}

TEST_F(broker_plugin, says_once_until_the_next_save_that_its_journal_is_full)
{
	load({"persistence " + folder});
	mosquitto *node = host.client("node");
	const std::string line = "quillet: unsaved.journal: its 67108864 bytes are full, and the broker has not written " +
			folder +
			"/mosquitto.db meanwhile; what the broker takes from now on is lost when it is killed before it saves";
	const std::string large(1 << 24, 'x');
	for (int round = 0; round < 2; round++) {
		for (int i = 0; i < 8; i++)
			EXPECT_EQ(host.publish(node, request(large)), MOSQ_ERR_SUCCESS);
		EXPECT_THAT(host.said(), ElementsAre(line));
		test_write_file(folder + "/mosquitto.db", "saved " + std::string(static_cast<size_t>(round), '.'));
	}
}
