// The TLS context of an identity: what it speaks, and which PEM texts it takes.
#include "bus_fixture.h"

#include "identity.h"

namespace
{

tls_report report;

// Why the identity is refused, or "".
std::string refusal(const test_credentials &own, const std::string &trust)
{
	test_identity holder(own, trust);
	tervbus_identity identity{};
	holder.fill(&identity);
	const char *why = "";
	const tls_context context = identity_tls_context(&identity, "127.0.0.1", &report, &why);
	return context ? "" : why;
}

class bus_context : public bus_test
{
};

const std::string broken = "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n";
const std::string cut_off = "-----BEGIN CERTIFICATE-----\nMIIB\n";

} // namespace

TEST_F(bus_context, speaks_tls_1_2_or_later_and_verifies_the_broker)
{
	test_identity holder(cast().agent, trust());
	tervbus_identity identity{};
	holder.fill(&identity);
	const char *why = "";
	const tls_context context = identity_tls_context(&identity, "broker.example", &report, &why);
	ASSERT_TRUE(context) << why;
	EXPECT_EQ(SSL_CTX_get_min_proto_version(context.get()), TLS1_2_VERSION);
	EXPECT_EQ(SSL_CTX_get_verify_mode(context.get()), SSL_VERIFY_PEER);
	EXPECT_STREQ(X509_VERIFY_PARAM_get0_host(SSL_CTX_get0_param(context.get()), 0), "broker.example");
}

TEST_F(bus_context, takes_chains_and_several_cas_and_text_around_them)
{
	const test_credentials chain{cast().agent.key_pem, cast().agent.certificate_pem + "a text\n" + trust()};
	EXPECT_EQ(refusal(chain, trust()), "");
	EXPECT_EQ(refusal(cast().agent, "a text\n" + trust() + cast().other_ca.certificate_pem + "\n\n"), "");
}

TEST_F(bus_context, takes_no_part_of_a_file)
{
	const auto with = [](const std::string &tail) {
		return test_credentials{cast().agent.key_pem, cast().agent.certificate_pem + tail};
	};
	EXPECT_EQ(refusal(with(broken), trust()), "the certificate cannot be used");
	EXPECT_EQ(refusal(with(cut_off), trust()), "the certificate cannot be used");
	EXPECT_EQ(refusal(cast().agent, trust() + broken), "the CA certificate cannot be used");
	EXPECT_EQ(refusal(cast().agent, trust() + cut_off), "the CA certificate cannot be used");
}
