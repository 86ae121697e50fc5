// What is told of an identity that cannot be used, or that a broker will refuse.
#include "identity.h"

#include "support/test_node.h"
#include "support/test_pki.h"

#include <gtest/gtest.h>

namespace
{

struct made_context {
	tls_report report;
	tls_context context;
	const char *why = nullptr;
};

void make(made_context *made, const test_credentials &own, const std::string &trust)
{
	test_identity holder(own, trust);
	tervbus_identity identity{};
	holder.fill(&identity);
	made->context = identity_tls_context(&identity, "localhost", &made->report, &made->why);
}

const char *fault_of(const test_credentials &own, const std::string &trust)
{
	made_context made;
	make(&made, own, trust);
	EXPECT_NE(made.context, nullptr) << made.why;
	return made.context ? identity_fault(made.context.get()) : "no context";
}

} // namespace

TEST(bus_identity_reasons, tell_what_is_wrong_with_the_key)
{
	const test_ca ca = test_ca_new("CA");
	const test_credentials own = test_ca_issue(ca, {.common_names = {"unit"}});
	const test_credentials other = test_ca_issue(ca, {.common_names = {"other"}});
	struct row {
		std::string key;
		const char *why;
	};
	const row rows[] = {
			{test_encrypt_key(own.key_pem, "secret"), "the private key is encrypted"},
			{other.key_pem, "the private key is not the certificate's"},
			{test_ed25519_key(), "the private key is not the certificate's"},
			{own.certificate_pem, "the private key cannot be used"},
			{"", "the private key cannot be used"},
	};
	for (const row &row : rows) {
		SCOPED_TRACE(row.why);
		made_context made;
		make(&made, {row.key, own.certificate_pem}, ca.certificate_pem);
		EXPECT_EQ(made.context, nullptr);
		EXPECT_STREQ(made.why, row.why);
	}
}

TEST(bus_identity_reasons, tell_what_a_broker_finds_wrong_with_the_certificate)
{
	const test_ca ca = test_ca_new("CA");
	const test_ca other = test_ca_new("other");
	constexpr int hour_s = 3600;
	const test_subject unit{.common_names = {"unit"}};
	const test_subject expired{.common_names = {"unit"}, .valid_from_s = -2 * hour_s, .valid_to_s = -hour_s};
	const test_subject early{.common_names = {"unit"}, .valid_from_s = hour_s};

	EXPECT_EQ(fault_of(test_ca_issue(ca, unit), ca.certificate_pem), nullptr);
	EXPECT_STREQ(fault_of(test_ca_issue(ca, expired), ca.certificate_pem), "certificate has expired");
	EXPECT_STREQ(fault_of(test_ca_issue(ca, early), ca.certificate_pem), "certificate is not yet valid");
	EXPECT_STREQ(fault_of(test_ca_issue(other, unit), ca.certificate_pem), "unable to get local issuer certificate");
}
