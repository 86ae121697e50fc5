#include "pki_fixture.h"

#include <array>
#include <functional>
#include <thread>

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

TEST_F(pki_commands, give_the_broker_an_empty_list_of_revoked_certificates)
{
	ASSERT_TRUE(init() && node("AGENT-1") && broker()) << error;

	EXPECT_FALSE(revoked("AGENT-1/cert.pem"));
	EXPECT_THAT(text("broker/mosquitto.conf"), HasSubstr("\ncrlfile " + directory + "/ca/crl.pem\n"));
}

TEST_F(pki_commands, make_up_the_list_of_a_folder_from_before)
{
	ASSERT_TRUE(init() && node("AGENT-1")) << error;
	fs::remove(directory + "/ca/crl.pem");

	ASSERT_TRUE(broker()) << error;

	EXPECT_FALSE(revoked("AGENT-1/cert.pem"));
}

TEST_F(pki_commands, keep_the_list_when_the_broker_is_made_again)
{
	ASSERT_TRUE(init() && node("AGENT-1") && broker() && revoke("AGENT-1") && broker(true)) << error;

	EXPECT_TRUE(revoked("AGENT-1/cert.pem"));
}

TEST_F(pki_commands, revoke_a_node_and_take_it_out_of_the_rules)
{
	ASSERT_TRUE(init() && node("AGENT-1") && node("AGENT-2") && node("T", "requester") && broker()) << error;

	ASSERT_TRUE(revoke("AGENT-1")) << error;

	EXPECT_TRUE(revoked("AGENT-1/cert.pem"));
	EXPECT_FALSE(revoked("AGENT-2/cert.pem"));
	EXPECT_THAT(text("broker/rules"), Not(HasSubstr("AGENT-1")));
	EXPECT_TRUE(lets("T", "AGENT-2"));
	EXPECT_THAT(out.str(), HasSubstr("start it anew"));
}

TEST_F(pki_commands, revoke_the_certificates_that_were_replaced_too)
{
	ASSERT_TRUE(init() && node("AGENT-1")) << error;
	fs::copy(directory + "/AGENT-1", root + "/stolen");
	ASSERT_TRUE(node("AGENT-1", "agent", true) && revoke("AGENT-1")) << error;

	EXPECT_TRUE(revoked("AGENT-1/cert.pem"));
	EXPECT_TRUE(revoked("../stolen/cert.pem"));
	EXPECT_THAT(out.str(), HasSubstr("revoked 2 certificates"));
}

TEST_F(pki_commands, revoke_a_node_whose_folder_is_gone)
{
	ASSERT_TRUE(init() && node("AGENT-1")) << error;
	fs::rename(directory + "/AGENT-1", root + "/stolen");

	ASSERT_TRUE(revoke("AGENT-1")) << error;

	EXPECT_TRUE(revoked("../stolen/cert.pem"));
}

TEST_F(pki_commands, take_a_revoked_node_back_in_when_it_is_made_anew)
{
	ASSERT_TRUE(init() && node("AGENT-1") && node("T", "requester") && broker() && revoke("AGENT-1")) << error;

	ASSERT_TRUE(node("AGENT-1", "agent", true)) << error;

	EXPECT_FALSE(revoked("AGENT-1/cert.pem"));
	EXPECT_TRUE(lets("T", "AGENT-1"));
}

TEST_F(pki_commands, start_with_nothing_revoked_under_a_new_ca)
{
	ASSERT_TRUE(init() && node("AGENT-1") && revoke("AGENT-1") && init(true)) << error;

	EXPECT_FALSE(revoked("AGENT-1/cert.pem"));
	EXPECT_FALSE(revoke("AGENT-1"));
	EXPECT_THAT(error, HasSubstr("the CA has signed no certificate of \"AGENT-1\""));
}

TEST_F(pki_commands, say_why_a_node_cannot_be_revoked)
{
	EXPECT_FALSE(revoke("AGENT-1"));
	EXPECT_THAT(error, HasSubstr("init"));
	ASSERT_TRUE(init() && node("AGENT-1")) << error;
	const struct {
		const char *name;
		bool old_only;
		const char *says;
	} rows[] = {
			{"NOBODY", false, "show lists the nodes"},
			{"", false, "show lists the nodes"},
			{"broker", false, "init --force"},
			{"AGENT-1", true, "no certificate left to revoke"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		EXPECT_FALSE(revoke(row.name, row.old_only));
		EXPECT_THAT(error, HasSubstr(row.says));
	}
	EXPECT_TRUE(revoke("AGENT-1")) << error;
	EXPECT_FALSE(revoke("AGENT-1"));
	EXPECT_THAT(error, HasSubstr("no certificate left to revoke"));
}

TEST_F(pki_commands, say_that_the_list_of_revoked_certificates_is_broken)
{
	ASSERT_TRUE(init() && node("AGENT-1")) << error;
	std::ofstream(directory + "/ca/crl.pem", std::ios::trunc) << "nonsense";

	EXPECT_FALSE(revoke("AGENT-1"));

	EXPECT_THAT(error, HasSubstr("/ca/crl.pem: not a list"));
	EXPECT_THAT(text("ca/crl.pem"), "nonsense");
}

// Puts a list in place on which this many more certificates stand, as a CA of many years has one.
static void lengthen_list(const std::string &directory, int count)
{
	identity ca;
	std::string error;
	revocation_list list;
	ASSERT_TRUE(load_ca(directory, ca, error) && load_revocations(directory, list, error)) << error;
	ASN1_TIME *now = X509_gmtime_adj(nullptr, 0);
	for (int i = 0; i < count; i++) {
		X509_REVOKED *entry = X509_REVOKED_new();
		ASN1_INTEGER *serial = ASN1_INTEGER_new();
		ASSERT_EQ(ASN1_INTEGER_set_uint64(serial, 0x4000000000000000u + static_cast<uint64_t>(i)), 1);
		ASSERT_EQ(X509_REVOKED_set_serialNumber(entry, serial), 1);
		ASSERT_EQ(X509_REVOKED_set_revocationDate(entry, now), 1);
		ASSERT_EQ(X509_CRL_add0_revoked(list.get(), entry), 1);
		ASN1_INTEGER_free(serial);
	}
	ASN1_TIME_free(now);
	ASSERT_NE(X509_CRL_sign(list.get(), ca.key.get(), EVP_sha256()), 0);
	std::ofstream(directory + "/ca/crl.pem", std::ios::trunc) << revocations_pem(list);
}

TEST_F(pki_commands, revoke_and_make_nodes_whatever_the_length_of_the_list)
{
	ASSERT_TRUE(init() && node("AGENT-1") && node("T", "requester") && broker()) << error;
	ASSERT_NO_FATAL_FAILURE(lengthen_list(directory, 40000));
	ASSERT_GT(fs::file_size(directory + "/ca/crl.pem"), 1024u * 1024u);

	EXPECT_TRUE(revoke("AGENT-1")) << error;
	EXPECT_TRUE(node("AGENT-2")) << error;

	EXPECT_TRUE(lets("T", "AGENT-2"));
	EXPECT_FALSE(lets("T", "AGENT-1"));
	std::ostringstream shown;
	EXPECT_TRUE(pki_show(directory, shown, error)) << error;
	EXPECT_THAT(shown.str(), HasSubstr("revoked    40001 in all\n"));
}

TEST_F(pki_commands, take_a_node_out_of_the_rules_before_it_is_on_the_list)
{
	ASSERT_TRUE(init() && node("AGENT-1") && node("T", "requester") && broker()) << error;
	const std::string list = text("ca/crl.pem");
	fs::create_directory(directory + "/ca/crl.pem.new"); // what is written comes by way of this name

	EXPECT_FALSE(revoke("AGENT-1"));

	EXPECT_THAT(error, HasSubstr("/ca/crl.pem"));
	EXPECT_FALSE(lets("T", "AGENT-1"));
	EXPECT_EQ(text("ca/crl.pem"), list);
	fs::remove(directory + "/ca/crl.pem.new");
	EXPECT_TRUE(revoke("AGENT-1")) << error;
	EXPECT_TRUE(revoked("AGENT-1/cert.pem"));
}

TEST_F(pki_commands, say_what_to_do_about_a_list_that_is_too_long_to_read)
{
	ASSERT_TRUE(init() && node("AGENT-1")) << error;
	fs::resize_file(directory + "/ca/crl.pem", 65 * 1024 * 1024);

	EXPECT_FALSE(revoke("AGENT-1"));

	EXPECT_THAT(error, HasSubstr("larger than 64 MiB"));
	EXPECT_THAT(error, HasSubstr("init --force"));
}

TEST_F(pki_commands, sign_no_list_that_could_not_be_read_again)
{
	identity ca;
	identity held;
	std::string list;
	ASSERT_TRUE(init() && node("AGENT-1") && load_ca(directory, ca, error)) << error;
	ASSERT_TRUE(load_certificate(directory + "/AGENT-1/cert.pem", held, error)) << error;
	revocation_list before;
	revocation_list after;
	ASSERT_TRUE(load_revocations(directory, before, error)) << error;
	ASSERT_TRUE(make_revocations(ca, before.get(), {held.certificate.get()}, after, error)) << error;
	const size_t needed = revocations_pem(after).size();

	EXPECT_TRUE(revocations_text(after, list, error, needed)) << error;
	EXPECT_EQ(list.size(), needed);
	EXPECT_FALSE(revocations_text(after, list, error, needed - 1));
	EXPECT_THAT(error, HasSubstr("init --force"));
}

static certificate_facts facts_of(const std::string &pem)
{
	identity held;
	std::string error;
	EXPECT_TRUE(parse_identity("", pem, held, error)) << error;
	return describe_certificate(held.certificate.get());
}

TEST_F(pki_commands, renew_a_node_with_its_names_and_a_new_key)
{
	ASSERT_TRUE(init()) << error;
	node_options old;
	old.name = "AGENT-1";
	old.group = "fleet-7";
	old.validity = {-20, 10};
	ASSERT_TRUE(pki_node(directory, old, out, error)) << error;
	const std::string key = text("AGENT-1/private.pem");

	ASSERT_TRUE(renew("AGENT-1")) << error;

	const certificate_facts facts = facts_of(text("AGENT-1/cert.pem"));
	EXPECT_EQ(facts.common_name, "AGENT-1");
	EXPECT_EQ(facts.group, "fleet-7");
	EXPECT_FALSE(facts.expired);
	EXPECT_EQ(text("AGENT-1/role"), "agent\n");
	EXPECT_NE(text("AGENT-1/private.pem"), key);
	EXPECT_EQ(mode("AGENT-1/private.pem"), 0600u);
	identity held;
	EXPECT_TRUE(parse_identity(text("AGENT-1/private.pem"), text("AGENT-1/cert.pem"), held, error)) << error;
}

TEST_F(pki_commands, renew_a_node_under_its_key_when_told)
{
	ASSERT_TRUE(init() && node("AGENT-1")) << error;
	const std::string key = text("AGENT-1/private.pem");
	const std::string certificate = text("AGENT-1/cert.pem");

	ASSERT_TRUE(renew("AGENT-1", true)) << error;

	EXPECT_EQ(text("AGENT-1/private.pem"), key);
	EXPECT_NE(text("AGENT-1/cert.pem"), certificate);
}

TEST_F(pki_commands, leave_the_certificate_before_a_renewal_good_until_told)
{
	ASSERT_TRUE(init() && node("AGENT-1")) << error;
	fs::copy(directory + "/AGENT-1", root + "/old");

	ASSERT_TRUE(renew("AGENT-1")) << error;
	EXPECT_FALSE(revoked("../old/cert.pem"));
	ASSERT_TRUE(revoke("AGENT-1", true)) << error;

	EXPECT_TRUE(revoked("../old/cert.pem"));
	EXPECT_FALSE(revoked("AGENT-1/cert.pem"));
}

TEST_F(pki_commands, renew_the_broker_for_the_hosts_it_has)
{
	ASSERT_TRUE(init()) << error;
	broker_options options;
	options.plugin = root + "/plugin.so";
	options.hosts = {"bus.example", "bus2.example"};
	options.addresses = {"192.0.2.1", "2001:db8::1"};
	ASSERT_TRUE(pki_broker(directory, options, out, error)) << error;
	const std::string configuration = text("broker/mosquitto.conf");
	const std::string certificate = text("broker/cert.pem");

	ASSERT_TRUE(renew("")) << error;

	const certificate_facts facts = facts_of(text("broker/cert.pem"));
	EXPECT_EQ(facts.hosts, options.hosts);
	EXPECT_EQ(facts.addresses, options.addresses);
	EXPECT_NE(text("broker/cert.pem"), certificate);
	EXPECT_EQ(text("broker/mosquitto.conf"), configuration);
	EXPECT_THAT(out.str(), HasSubstr("next start"));
}

TEST_F(pki_commands, say_why_an_identity_cannot_be_renewed)
{
	EXPECT_FALSE(renew("AGENT-1"));
	EXPECT_THAT(error, HasSubstr("init"));
	ASSERT_TRUE(init() && node("AGENT-1") && node("GONE") && revoke("GONE")) << error;
	const struct {
		renew_options options;
		const char *says;
	} rows[] = {
			{{"", false, false, {}}, "--broker"},
			{{"", true, false, {}}, "there is no broker"},
			{{"NOBODY", false, false, {}}, "show lists"},
			{{"../AGENT-1", false, false, {}}, "show lists"},
			{{"GONE", false, false, {}}, "is revoked; to take it back in"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.options.name);
		EXPECT_FALSE(pki_renew(directory, row.options, out, error));
		EXPECT_THAT(error, HasSubstr(row.says));
	}
	std::ofstream(directory + "/AGENT-1/private.pem", std::ios::trunc).flush();
	EXPECT_FALSE(renew("AGENT-1", true));
	EXPECT_THAT(error, HasSubstr("without --keep-key"));
}

TEST_F(pki_commands, show_who_is_revoked_and_how_many_days_are_left)
{
	ASSERT_TRUE(init() && node("AGENT-1") && node("AGENT-2") && revoke("AGENT-2")) << error;
	std::ostringstream shown;

	ASSERT_TRUE(pki_show(directory, shown, error)) << error;

	EXPECT_THAT(shown.str(), testing::ContainsRegex("AGENT-1  valid until .* \\(364[89] days\\)\n"));
	EXPECT_THAT(shown.str(), testing::ContainsRegex("AGENT-2  valid until .* days\\)  REVOKED\n"));
	EXPECT_THAT(shown.str(), HasSubstr("revoked    1 in all\n"));
}

TEST_F(pki_commands, lose_no_revocation_when_several_run_at_once)
{
	ASSERT_TRUE(init() && broker()) << error;
	std::array<std::string, 8> errors;
	for (size_t i = 0; i < errors.size(); i++)
		ASSERT_TRUE(node("AGENT-" + std::to_string(i))) << error;

	std::vector<std::thread> commands;
	for (size_t i = 0; i < errors.size(); i++)
		commands.emplace_back([this, i, &errors] {
			std::ostringstream ignored;
			pki_revoke(directory, {"AGENT-" + std::to_string(i), false}, ignored, errors[i]);
		});
	for (std::thread &command : commands)
		command.join();

	for (size_t i = 0; i < errors.size(); i++) {
		SCOPED_TRACE(i);
		EXPECT_EQ(errors[i], "");
		EXPECT_TRUE(revoked("AGENT-" + std::to_string(i) + "/cert.pem"));
		EXPECT_THAT(text("broker/rules"), Not(HasSubstr("AGENT-" + std::to_string(i))));
	}
}

TEST_F(pki_commands, make_nothing_with_a_ca_that_has_run_out)
{
	init_options options;
	options.validity = {.start_days = -10, .days = 1};
	ASSERT_TRUE(pki_init(directory, options, out, error)) << error;

	EXPECT_FALSE(node("AGENT-1"));
	EXPECT_THAT(error, HasSubstr("has run out on"));
	EXPECT_FALSE(broker());
	EXPECT_FALSE(fs::exists(directory + "/AGENT-1"));
	EXPECT_TRUE(init(true)) << error;
	EXPECT_TRUE(node("AGENT-1")) << error;
}

static bool init_for(const std::string &directory, int days, std::ostream &out, std::string &error)
{
	init_options options;
	options.validity.days = days;
	return pki_init(directory, options, out, error);
}

TEST_F(pki_commands, let_no_certificate_outlive_its_ca_and_say_so)
{
	ASSERT_TRUE(init_for(directory, 31, out, error)) << error;
	const std::string end = facts_of(text("ca/ca.pem")).not_after;
	const struct {
		const char *path;
		std::function<bool()> make;
	} rows[] = {
			{"AGENT-1/cert.pem",
					[this] {
						return node("AGENT-1");
					}},
			{"B/cert.pem",
					[this] {
						return bridge("B", {"UNIT-1"});
					}},
			{"broker/cert.pem",
					[this] {
						return broker();
					}},
			{"AGENT-1/cert.pem",
					[this] {
						return renew("AGENT-1");
					}},
			{"broker/cert.pem",
					[this] {
						return renew("");
					}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.path);
		out.str("");
		ASSERT_TRUE(row.make()) << error;

		EXPECT_EQ(facts_of(text(row.path)).not_after, end);
		EXPECT_THAT(out.str(), HasSubstr("ends with the CA, on " + end));
	}
}

TEST_F(pki_commands, say_nothing_of_the_ca_when_a_certificate_gets_its_days)
{
	ASSERT_TRUE(init() && node("AGENT-1")) << error;

	EXPECT_THAT(out.str(), Not(HasSubstr("ends with the CA")));
}

TEST_F(pki_commands, make_no_certificate_that_would_begin_when_its_ca_has_ended)
{
	ASSERT_TRUE(init_for(directory, 31, out, error)) << error;
	node_options late;
	late.name = "LATE";
	late.validity = {40, 10};

	EXPECT_FALSE(pki_node(directory, late, out, error));

	EXPECT_THAT(error, HasSubstr("--start-days"));
	EXPECT_FALSE(fs::exists(directory + "/LATE/cert.pem"));
}

TEST_F(pki_commands, show_the_end_of_the_ca_where_it_comes_first)
{
	// A CA that ends before what it has signed, as it was possible once.
	ASSERT_TRUE(init() && node("AGENT-1")) << error;
	identity ca;
	ASSERT_TRUE(load_ca(directory, ca, error)) << error;
	X509_time_adj_ex(X509_getm_notAfter(ca.certificate.get()), 5, 0, nullptr);
	ASSERT_NE(X509_sign(ca.certificate.get(), ca.key.get(), EVP_sha256()), 0);
	std::ofstream(directory + "/ca/ca.pem", std::ios::trunc) << certificate_pem(ca);
	const std::string end = facts_of(text("ca/ca.pem")).not_after;
	std::ostringstream shown;

	ASSERT_TRUE(pki_show(directory, shown, error)) << error;

	EXPECT_THAT(shown.str(),
			testing::ContainsRegex("agent      AGENT-1  valid until " + end + " \\([45] days\\), when its CA ends\n"));
}

TEST_F(pki_commands, say_that_what_is_replaced_stays_good)
{
	ASSERT_TRUE(init() && node("AGENT-1") && bridge("B", {"UNIT-1"})) << error;
	EXPECT_THAT(out.str(), Not(HasSubstr("stay good")));
	const struct {
		const char *name;
		std::function<bool()> replace;
	} rows[] = {
			{"AGENT-1",
					[this] {
						return node("AGENT-1", "agent", true);
					}},
			{"B",
					[this] {
						return bridge("B", {"UNIT-1"}, true);
					}},
			{"AGENT-1",
					[this] {
						return renew("AGENT-1");
					}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		out.str("");
		ASSERT_TRUE(row.replace()) << error;

		EXPECT_THAT(out.str(), HasSubstr("stay good until they end or are revoked"));
		EXPECT_THAT(out.str(), HasSubstr("quillet-pki --dir " + directory + " revoke " + row.name + " --old\n"));
	}
}

TEST_F(pki_commands, say_nothing_of_what_is_replaced_when_it_is_good_no_more)
{
	ASSERT_TRUE(init() && node("AGENT-1") && revoke("AGENT-1") && node("AGENT-1", "agent", true)) << error;
	EXPECT_THAT(out.str(), Not(HasSubstr("stay good")));

	ASSERT_TRUE(init(true) && node("AGENT-1", "agent", true)) << error;
	EXPECT_THAT(out.str(), Not(HasSubstr("stay good"))) << "the new CA did not sign the old one";
}
