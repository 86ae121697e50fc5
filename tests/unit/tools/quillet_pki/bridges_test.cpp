#include "pki_fixture.h"

#include <functional>

#include "rules_limit.h"

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

// A fleet's folder and a vehicle's, each with a CA and a broker.
class pki_bridges : public pki_commands
{
protected:
	void SetUp() override
	{
		pki_commands::SetUp();
		fleet = root + "/fleet";
		vehicle = root + "/vehicle";
		at(vehicle);
		ASSERT_TRUE(init() && node("AGENT-1") && node("LOCAL", "requester") && broker()) << error;
		at(fleet);
		ASSERT_TRUE(init() && node("TESTER-1", "requester") && broker()) << error;
	}

	void at(const std::string &folder)
	{
		directory = folder;
	}

	bool uplink(const std::vector<std::string> &peers, bool force = false)
	{
		uplink_options options;
		options.folder = fleet + "/CAR-7";
		options.to = "bus.example:8883";
		options.peers = peers;
		options.force = force;
		at(vehicle);
		return pki_uplink(vehicle, options, out, error);
	}

	std::string fleet;
	std::string vehicle;
};

TEST_F(pki_bridges, a_bridge_is_an_identity_with_all_that_its_other_end_needs)
{
	ASSERT_TRUE(bridge("CAR-7", {"AGENT-1", "AGENT-2"})) << error;

	identity held;
	EXPECT_TRUE(parse_identity(text("CAR-7/private.pem"), text("CAR-7/cert.pem"), held, error)) << error;
	EXPECT_EQ(mode("CAR-7/private.pem"), 0600u);
	EXPECT_EQ(text("CAR-7/ca.pem"), text("ca/ca.pem"));
	EXPECT_EQ(text("CAR-7/units"), "AGENT-1\nAGENT-2\n");
	EXPECT_THAT(text("broker/rules"), HasSubstr("bridge CAR-7 AGENT-1,AGENT-2\n"));
	EXPECT_TRUE(lets("TESTER-1", "AGENT-2"));
}

TEST_F(pki_bridges, an_uplink_is_the_same_identity_with_the_bridges_configuration)
{
	ASSERT_TRUE(bridge("CAR-7", {"AGENT-1"}) && uplink({"TESTER-1"})) << error;

	for (const char *name : {"private.pem", "cert.pem", "ca.pem"}) {
		SCOPED_TRACE(name);
		std::string made;
		EXPECT_TRUE(read_file(fleet + "/CAR-7/" + name, made, error)) << error;
		EXPECT_EQ(text(std::string("CAR-7/") + name), made);
	}
	EXPECT_EQ(mode("CAR-7/private.pem"), 0600u);
	EXPECT_THAT(text("broker/bridges/CAR-7.conf"), HasSubstr("\naddress 127.0.0.1:9134\n"));
	EXPECT_THAT(text("broker/rules"), HasSubstr("bridge bridge/CAR-7 TESTER-1\nallow TESTER-1 AGENT-1\n"));
	EXPECT_THAT(
			out.str(), HasSubstr("quillet-uplink --identity " + vehicle + "/CAR-7 --to bus.example:8883 --port 9134"));
}

TEST_F(pki_bridges, an_uplink_without_quillet_uplink_goes_to_the_far_broker_by_tls)
{
	ASSERT_TRUE(bridge("CAR-7", {"AGENT-1"})) << error;
	uplink_options options;
	options.folder = fleet + "/CAR-7/";
	options.to = "bus.example:8883";
	options.peers = {"TESTER-1"};
	options.direct = true;

	ASSERT_TRUE(pki_uplink(vehicle, options, out, error)) << error;

	at(vehicle);
	EXPECT_THAT(text("broker/bridges/CAR-7.conf"), HasSubstr("\naddress bus.example:8883\n"));
	EXPECT_THAT(text("broker/bridges/CAR-7.conf"), HasSubstr("\nbridge_keyfile " + vehicle + "/CAR-7/private.pem\n"));
	EXPECT_THAT(out.str(), Not(HasSubstr("quillet-uplink")));
}

TEST_F(pki_bridges, an_uplink_may_go_to_an_ipv6_address_in_brackets)
{
	ASSERT_TRUE(bridge("CAR-7", {"AGENT-1"})) << error;
	uplink_options options;
	options.folder = fleet + "/CAR-7";
	options.to = "[2001:db8::1]:8883";
	options.peers = {"TESTER-1"};
	at(vehicle);

	ASSERT_TRUE(pki_uplink(vehicle, options, out, error)) << error;
	EXPECT_THAT(out.str(), HasSubstr(" --to [2001:db8::1]:8883 "));
	EXPECT_THAT(text("broker/bridges/CAR-7.conf"), HasSubstr("\naddress 127.0.0.1:9134\n"));

	options.direct = true;
	options.force = true;
	ASSERT_TRUE(pki_uplink(vehicle, options, out, error)) << error;
	// mosquitto cuts at the last colon and takes what is before it as it is.
	EXPECT_THAT(text("broker/bridges/CAR-7.conf"), HasSubstr("\naddress 2001:db8::1:8883\n"));
}

TEST_F(pki_bridges, are_kept_unless_told_otherwise)
{
	ASSERT_TRUE(bridge("CAR-7", {"AGENT-1"}) && uplink({"TESTER-1"})) << error;

	EXPECT_FALSE(uplink({"TESTER-1", "TESTER-2"}));
	EXPECT_THAT(error, HasSubstr("--force"));
	at(fleet);
	EXPECT_FALSE(bridge("CAR-7", {"AGENT-1"}));
	EXPECT_THAT(error, HasSubstr("--force"));

	EXPECT_TRUE(bridge("CAR-7", {"AGENT-1", "AGENT-2"}, true)) << error;
	EXPECT_TRUE(uplink({"TESTER-1", "TESTER-2"}, true)) << error;
	EXPECT_EQ(text("CAR-7/units"), "AGENT-1\nAGENT-2\n");
	EXPECT_EQ(text("CAR-7/peers"), "TESTER-1\nTESTER-2\n");
}

TEST_F(pki_bridges, keep_the_key_of_an_uplink_whose_certificate_is_gone)
{
	ASSERT_TRUE(bridge("CAR-7", {"AGENT-1"}) && uplink({"TESTER-1"})) << error;
	fs::remove(vehicle + "/CAR-7/cert.pem");

	EXPECT_FALSE(uplink({"TESTER-1"}));

	EXPECT_THAT(error, HasSubstr("private.pem exists already; --force"));
}

TEST_F(pki_bridges, are_not_made_nodes_of_by_force)
{
	ASSERT_TRUE(bridge("CAR-7", {"AGENT-1"}) && uplink({"TESTER-1"})) << error;
	for (const std::string &side : {fleet, vehicle}) {
		SCOPED_TRACE(side);
		at(side);
		const std::string key = text("CAR-7/private.pem");

		EXPECT_FALSE(node("CAR-7", "agent", true));

		EXPECT_THAT(error, HasSubstr("there is a bridge of that name; choose another"));
		EXPECT_EQ(text("CAR-7/private.pem"), key);
	}
}

TEST_F(pki_bridges, say_why_a_bridge_cannot_be_made)
{
	ASSERT_TRUE(bridge("OTHER", {"AGENT-9"})) << error;
	const struct {
		const char *name;
		std::vector<std::string> units;
		const char *says;
	} rows[] = {
			{"", {"A"}, "empty"},
			{"a/b", {"A"}, "'/'"},
			{"a b", {"A"}, "a blank"},
			{"DM-CLIENT", {"A"}, "is a node"},
			{"TESTER-1", {"A"}, "there is a node of that name"},
			{"B", {}, "--units"},
			{"B", {"A", ""}, "empty"},
			{"B", {"A+"}, "'+'"},
			{"B", {"A\n"}, "control character"},
			{"B", {"A B"}, "a blank"},
			{"B", {"A", "A"}, "named twice"},
			{"B", {"B"}, "the bridge itself"},
			{"B", {"DM-CLIENT"}, "commands units"},
			{"B", {"TESTER-1"}, "comes in by itself"},
			{"B", {"AGENT-9"}, "behind the bridge \"OTHER\""},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.says);
		EXPECT_FALSE(bridge(row.name, row.units));
		EXPECT_THAT(error, HasSubstr(row.says));
	}
	EXPECT_FALSE(fs::exists(fleet + "/B"));
}

TEST_F(pki_bridges, say_why_an_uplink_cannot_be_made)
{
	ASSERT_TRUE(bridge("CAR-7", {"AGENT-1"})) << error;
	const struct {
		const char *to;
		std::vector<std::string> peers;
		const char *says;
	} rows[] = {
			{"bus.example", {"P"}, "is not HOST:PORT"},
			{":1", {"P"}, "is not HOST:PORT"},
			{"bus.example:0", {"P"}, "is not HOST:PORT"},
			{"bus.example:65536", {"P"}, "is not HOST:PORT"},
			{"bus.example:1x", {"P"}, "is not HOST:PORT"},
			{"a\nuser root:1", {"P"}, "is not HOST:PORT"},
			{"2001:db8::1:8883", {"P"}, "is not HOST:PORT, as in bus.example:8883 or ["},
			{"[2001:db8::1]", {"P"}, "is not HOST:PORT"},
			{"bus.example:1", {}, "--peers"},
			{"bus.example:1", {"P#"}, "'#'"},
			{"bus.example:1", {"AGENT-1"}, "is a unit of this side"},
			{"bus.example:1", {"LOCAL"}, "comes in by itself"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.says);
		uplink_options options;
		options.folder = fleet + "/CAR-7";
		options.to = row.to;
		options.peers = row.peers;
		EXPECT_FALSE(pki_uplink(vehicle, options, out, error));
		EXPECT_THAT(error, HasSubstr(row.says));
	}
	EXPECT_FALSE(fs::exists(vehicle + "/CAR-7"));
}

TEST_F(pki_bridges, say_which_broker_has_to_be_made_for_an_uplink)
{
	ASSERT_TRUE(bridge("CAR-7", {"AGENT-1"})) << error;
	std::ofstream(vehicle + "/broker/mosquitto.conf") << "listener 1\n";
	EXPECT_FALSE(uplink({"TESTER-1"}));
	EXPECT_THAT(error, HasSubstr("broker --force"));
	fs::remove(vehicle + "/broker/mosquitto.conf");
	EXPECT_FALSE(uplink({"TESTER-1"}));
	EXPECT_THAT(error, HasSubstr("make one first"));
}

TEST_F(pki_bridges, say_what_is_wrong_with_the_folder_of_an_uplink)
{
	EXPECT_FALSE(uplink({"TESTER-1"}));
	EXPECT_THAT(error, HasSubstr("quillet-pki bridge has made"));
	at(fleet);
	ASSERT_TRUE(bridge("CAR-7", {"AGENT-1"})) << error;
	std::ofstream(fleet + "/CAR-7/private.pem", std::ios::trunc) << "nonsense";
	EXPECT_FALSE(uplink({"TESTER-1"}));
	EXPECT_THAT(error, HasSubstr("have the bridge made anew"));
}

TEST_F(pki_bridges, no_node_takes_the_name_of_one_behind_a_bridge)
{
	ASSERT_TRUE(bridge("CAR-7", {"AGENT-1"}) && uplink({"TESTER-1"})) << error;

	EXPECT_FALSE(node("TESTER-1", "requester"));
	EXPECT_THAT(error, HasSubstr("at the far end of the uplink \"CAR-7\""));
	at(fleet);
	EXPECT_FALSE(node("AGENT-1"));
	EXPECT_THAT(error, HasSubstr("behind the bridge \"CAR-7\""));
}

// A bridge's folder as it would be with this many units, too many to be made one by one.
static void add_units(const std::string &folder, int count)
{
	fs::create_directory(folder);
	std::ofstream(folder + "/role") << "bridge\n";
	std::ofstream units(folder + "/units");
	for (int i = 0; i < count; i++)
		units << fs::path(folder).filename().string() << "-" << std::string(50, 'u') << i << "\n";
}

TEST_F(pki_bridges, rules_above_what_the_plugin_reads_are_refused_before_anything_is_made)
{
	for (const char *name : {"B1", "B2", "B3", "B4", "B5", "B6", "B7", "B8", "B9"})
		add_units(fleet + "/" + name, 16000);
	const std::string rules = text("broker/rules");
	const std::string certificate = text("broker/cert.pem");
	const struct {
		const char *name;
		std::function<bool()> make;
	} rows[] = {
			{"AGENT-9",
					[this] {
						return node("AGENT-9");
					}},
			{"CAR-7",
					[this] {
						return bridge("CAR-7", {"UNIT-1"});
					}},
			{"broker",
					[this] {
						return broker(true);
					}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		EXPECT_FALSE(row.make());
		EXPECT_THAT(error, HasSubstr("the broker's plugin reads at most 16 MiB"));
		EXPECT_THAT(error, HasSubstr("plugin_opt_rules"));
	}
	EXPECT_FALSE(fs::exists(fleet + "/AGENT-9"));
	EXPECT_FALSE(fs::exists(fleet + "/CAR-7"));
	EXPECT_EQ(text("broker/rules"), rules);
	EXPECT_EQ(text("broker/cert.pem"), certificate);

	for (const char *name : {"B7", "B8", "B9"})
		fs::remove_all(fleet + "/" + name);
	EXPECT_TRUE(node("AGENT-9")) << error;
	EXPECT_GT(text("broker/rules", rules_file_max).size(), 8u << 20);
}

TEST_F(pki_bridges, a_revoked_bridge_and_its_units_are_out_of_the_rules)
{
	ASSERT_TRUE(bridge("CAR-7", {"AGENT-1"}) && revoke("CAR-7")) << error;

	EXPECT_TRUE(revoked("CAR-7/cert.pem"));
	EXPECT_THAT(text("broker/rules"), Not(HasSubstr("AGENT-1")));
}

TEST_F(pki_bridges, a_bridge_is_renewed_where_it_was_made)
{
	ASSERT_TRUE(bridge("CAR-7", {"AGENT-1"}) && uplink({"TESTER-1"})) << error;

	EXPECT_FALSE(renew("CAR-7"));
	EXPECT_THAT(error, HasSubstr("renewed there"));
	at(fleet);
	EXPECT_TRUE(renew("CAR-7")) << error;
	EXPECT_EQ(text("CAR-7/role"), "bridge\n");
}

TEST_F(pki_bridges, are_shown_with_their_units)
{
	ASSERT_TRUE(bridge("CAR-7", {"AGENT-1", "AGENT-2"}) && uplink({"TESTER-1"})) << error;
	std::ostringstream shown;

	ASSERT_TRUE(pki_show(fleet, shown, error) && pki_show(vehicle, shown, error)) << error;

	EXPECT_THAT(shown.str(), testing::ContainsRegex("bridge     CAR-7  .*  for AGENT-1,AGENT-2\n"));
	EXPECT_THAT(shown.str(), testing::ContainsRegex("uplink     CAR-7  .*  for AGENT-1,AGENT-2\n"));
}
