#include "pki_fixture.h"

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

TEST_F(pki_commands, make_the_files_that_an_agent_reads)
{
	ASSERT_TRUE(init()) << error;
	ASSERT_TRUE(node("AGENT-1")) << error;

	for (const char *path : {"AGENT-1/private.pem", "AGENT-1/cert.pem", "AGENT-1/../ca/ca.pem"}) {
		SCOPED_TRACE(path);
		EXPECT_THAT(text(path), HasSubstr("-----BEGIN"));
	}
	identity held;
	EXPECT_TRUE(parse_identity(text("AGENT-1/private.pem"), text("AGENT-1/cert.pem"), held, error)) << error;
	EXPECT_TRUE(parse_identity(text("ca/ca.key"), text("ca/ca.pem"), held, error)) << error;
}

TEST_F(pki_commands, keep_private_keys_from_everybody_else)
{
	ASSERT_TRUE(init() && node("AGENT-1") && broker()) << error;

	for (const char *path : {"ca/ca.key", "AGENT-1/private.pem", "broker/private.pem"}) {
		SCOPED_TRACE(path);
		EXPECT_EQ(mode(path), 0600u);
	}
	for (const char *path : {"ca/ca.pem", "AGENT-1/cert.pem", "broker/cert.pem", "broker/rules"}) {
		SCOPED_TRACE(path);
		EXPECT_EQ(mode(path), 0644u);
	}
}

TEST_F(pki_commands, keep_what_exists_unless_told_otherwise)
{
	ASSERT_TRUE(init() && node("AGENT-1") && broker()) << error;
	const std::string files[] = {"ca/ca.key", "ca/ca.pem", "AGENT-1/private.pem", "AGENT-1/cert.pem",
			"broker/private.pem", "broker/mosquitto.conf"};
	std::string before;
	for (const std::string &path : files)
		before += text(path);

	EXPECT_FALSE(init());
	EXPECT_THAT(error, HasSubstr("--force"));
	EXPECT_FALSE(node("AGENT-1"));
	EXPECT_THAT(error, HasSubstr("--force"));
	EXPECT_FALSE(broker());
	EXPECT_THAT(error, HasSubstr("--force"));

	std::string after;
	for (const std::string &path : files)
		after += text(path);
	EXPECT_EQ(before, after);
}

TEST_F(pki_commands, keep_a_key_whose_certificate_is_gone)
{
	ASSERT_TRUE(init() && node("AGENT-1")) << error;
	fs::remove(directory + "/AGENT-1/cert.pem");

	EXPECT_FALSE(node("AGENT-1"));

	EXPECT_THAT(error, HasSubstr("private.pem exists already"));
}

TEST_F(pki_commands, keep_a_brokers_key_whose_configuration_is_gone)
{
	ASSERT_TRUE(init() && node("AGENT-1") && broker()) << error;
	const std::string key = text("broker/private.pem");
	fs::remove(directory + "/broker/mosquitto.conf");

	EXPECT_FALSE(broker());

	EXPECT_THAT(error, HasSubstr("exists already; --force"));
	EXPECT_EQ(text("broker/private.pem"), key);
	EXPECT_TRUE(broker(true)) << error;
}

TEST_F(pki_commands, replace_what_exists_when_forced)
{
	ASSERT_TRUE(init() && node("AGENT-1") && broker()) << error;
	std::string key = text("AGENT-1/private.pem");

	EXPECT_TRUE(node("AGENT-1", "agent", true)) << error;
	EXPECT_TRUE(broker(true)) << error;
	EXPECT_TRUE(init(true)) << error;

	EXPECT_NE(text("AGENT-1/private.pem"), key);
	EXPECT_EQ(mode("AGENT-1/private.pem"), 0600u);
}

TEST_F(pki_commands, say_to_make_the_ca_first)
{
	EXPECT_FALSE(node("AGENT-1"));
	EXPECT_THAT(error, HasSubstr("init"));
	EXPECT_FALSE(broker());
	EXPECT_THAT(error, HasSubstr("init"));
	EXPECT_FALSE(pki_show(directory, out, error));
	EXPECT_THAT(error, HasSubstr("init"));
	EXPECT_FALSE(fs::exists(directory + "/AGENT-1"));
}

TEST_F(pki_commands, leave_no_trace_of_a_refused_name)
{
	ASSERT_TRUE(init()) << error;
	for (const char *name : {"", "../x", "a+b", "a#", "a\nb", "ca", "broker"}) {
		SCOPED_TRACE(name);
		EXPECT_FALSE(node(name));
		EXPECT_THAT(error, HasSubstr("cannot be made"));
	}
	node_options options;
	options.name = "AGENT-1";
	options.group = "a/b";
	EXPECT_FALSE(pki_node(directory, options, out, error));
	EXPECT_THAT(error, HasSubstr("of group"));
	EXPECT_EQ(std::distance(fs::directory_iterator(directory), fs::directory_iterator()), 1);
}

TEST_F(pki_commands, put_a_later_node_into_the_rules)
{
	ASSERT_TRUE(init() && node("AGENT-1") && broker()) << error;
	EXPECT_FALSE(lets("TESTER-1", "AGENT-1"));

	ASSERT_TRUE(node("TESTER-1", "requester")) << error;

	EXPECT_TRUE(lets("TESTER-1", "AGENT-1"));
	EXPECT_TRUE(lets("AGENT-1", "TESTER-1"));
	EXPECT_THAT(out.str(), HasSubstr("a running broker reads them"));
}

TEST_F(pki_commands, write_absolute_paths_into_the_configuration)
{
	ASSERT_TRUE(init()) << error;
	fs::path old = fs::current_path();
	fs::current_path(root);
	broker_options options;
	options.plugin = "plugin.so";
	EXPECT_TRUE(pki_broker("pki", options, out, error)) << error;
	fs::current_path(old);

	EXPECT_THAT(text("broker/mosquitto.conf"), HasSubstr("\nplugin " + root + "/plugin.so\n"));
	EXPECT_THAT(text("broker/mosquitto.conf"), HasSubstr("\ncafile " + directory + "/ca/ca.pem\n"));
	EXPECT_TRUE(fs::is_directory(directory + "/broker/data"));
}

TEST_F(pki_commands, refuse_a_broker_that_could_not_work)
{
	ASSERT_TRUE(init()) << error;
	const struct {
		void (*change)(broker_options &);
		const char *says;
	} rows[] = {
			{[](broker_options &options) { options.port = 0; }, "1 to 65535"},
			{[](broker_options &options) { options.port = 65536; }, "1 to 65535"},
			{[](broker_options &options) { options.hosts = options.addresses = {}; }, "--host or --ip"},
			{[](broker_options &options) { options.hosts = {"a,DNS:b"}; }, "not a host name"},
			{[](broker_options &options) { options.addresses = {"300.1.1.1"}; }, "not an IP address"},
			{[](broker_options &options) { options.plugin = "/nowhere.so"; }, "does not exist"},
			{[](broker_options &options) { options.plugin = "/"; }, "is a folder"},
			{[](broker_options &options) { options.listen = "::1\nuser root"; }, "control character"},
			{[](broker_options &options) { options.user = "no-such-user"; }, "--user"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.says);
		broker_options options;
		options.plugin = root + "/plugin.so";
		options.force = true;
		row.change(options);

		EXPECT_FALSE(pki_broker(directory, options, out, error));

		EXPECT_THAT(error, HasSubstr(row.says));
	}
}

TEST_F(pki_commands, show_lists_every_identity_with_its_end)
{
	ASSERT_TRUE(init() && node("AGENT-1") && node("TESTER-1", "requester") && broker()) << error;
	node_options old;
	old.name = "OLD";
	old.validity = {-20, 10};
	ASSERT_TRUE(pki_node(directory, old, out, error)) << error;
	std::ostringstream shown;

	ASSERT_TRUE(pki_show(directory, shown, error)) << error;

	EXPECT_THAT(shown.str(), HasSubstr("ca         Quillet CA  valid until"));
	EXPECT_THAT(shown.str(), HasSubstr("agent      AGENT-1  valid until"));
	EXPECT_THAT(shown.str(), HasSubstr("requester  TESTER-1  valid until"));
	EXPECT_THAT(shown.str(), HasSubstr("agent      OLD  EXPIRED on"));
}

TEST_F(pki_commands, say_which_file_of_the_ca_is_broken)
{
	ASSERT_TRUE(init()) << error;
	std::ofstream(directory + "/ca/ca.key") << "nonsense";

	EXPECT_FALSE(node("AGENT-1"));

	EXPECT_THAT(error, HasSubstr("/ca cannot be used: not an unencrypted private key"));
}

TEST_F(pki_commands, say_that_the_key_of_the_ca_is_empty)
{
	ASSERT_TRUE(init()) << error;
	std::ofstream(directory + "/ca/ca.key", std::ios::trunc).flush();

	EXPECT_FALSE(node("AGENT-1"));

	EXPECT_THAT(error, HasSubstr("/ca/ca.key is empty"));
}

TEST_F(pki_commands, say_which_identity_cannot_be_shown_and_how_to_get_it_back)
{
	ASSERT_TRUE(init() && node("AGENT-1")) << error;
	std::ofstream(directory + "/AGENT-1/cert.pem", std::ios::trunc) << "nonsense";

	EXPECT_FALSE(pki_show(directory, out, error));

	EXPECT_THAT(error, HasSubstr("/AGENT-1/cert.pem: not a certificate"));
	EXPECT_THAT(error, HasSubstr("--force"));
}

TEST_F(pki_commands, tell_where_the_broker_logs)
{
	ASSERT_TRUE(init() && broker()) << error;

	EXPECT_THAT(out.str(), HasSubstr("It logs to " + directory + "/broker/data/broker.log."));
}

TEST_F(pki_commands, let_nobody_else_write_in_their_folders_whatever_the_umask)
{
	const mode_t before = umask(0);
	EXPECT_TRUE(init() && node("AGENT-1") && broker()) << error;
	EXPECT_EQ(umask(before), 0u) << "the caller's is left alone";

	for (const char *path : {"", "ca", "ca/issued", "AGENT-1", "broker", "broker/data", "broker/bridges"})
		EXPECT_EQ(mode(path), 0755u) << path;
}

TEST_F(pki_commands, keep_the_list_of_revoked_certificates_when_no_new_ca_can_be_made)
{
	ASSERT_TRUE(init() && node("AGENT-1") && revoke("AGENT-1")) << error;
	fs::create_directories(directory + "/ca/ca.key.new/in-the-way");

	EXPECT_FALSE(init(true));

	EXPECT_TRUE(revoked("AGENT-1/cert.pem"));
	EXPECT_FALSE(fs::is_empty(directory + "/ca/issued"));
}
