#include "certificates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <openssl/ec.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

static identity make(const certificate_request &request, const identity *issuer)
{
	identity made;
	std::string error;
	EXPECT_TRUE(make_identity(request, issuer, made, error)) << error;
	return made;
}

static identity make_ca()
{
	certificate_request request;
	request.kind = certificate_kind::ca;
	request.common_name = "Test CA";
	return make(request, nullptr);
}

// What OpenSSL says of the certificate for the purpose when it trusts the CA alone.
static int verify(const identity &ca, const identity &held, int purpose, const char *host = nullptr,
		const char *address = nullptr)
{
	X509_STORE *store = X509_STORE_new();
	X509_STORE_add_cert(store, ca.certificate.get());
	X509_STORE_CTX *context = X509_STORE_CTX_new();
	X509_STORE_CTX_init(context, store, held.certificate.get(), nullptr);
	X509_STORE_CTX_set_purpose(context, purpose);
	X509_VERIFY_PARAM *param = X509_STORE_CTX_get0_param(context);
	if (host != nullptr)
		X509_VERIFY_PARAM_set1_host(param, host, 0);
	if (address != nullptr)
		X509_VERIFY_PARAM_set1_ip_asc(param, address);
	X509_verify_cert(context);
	int result = X509_STORE_CTX_get_error(context);
	X509_STORE_CTX_free(context);
	X509_STORE_free(store);
	return result;
}

TEST(certificates, a_node_is_a_client_that_the_ca_vouches_for)
{
	identity ca = make_ca();
	certificate_request request;
	request.common_name = "AGENT-1";
	request.group = "fleet-7";

	identity node = make(request, &ca);

	EXPECT_EQ(verify(ca, node, X509_PURPOSE_SSL_CLIENT), X509_V_OK);
	EXPECT_NE(verify(ca, node, X509_PURPOSE_SSL_SERVER), X509_V_OK);
	certificate_facts facts = describe_certificate(node.certificate.get());
	EXPECT_EQ(facts.common_name, "AGENT-1");
	EXPECT_EQ(facts.group, "fleet-7");
	EXPECT_FALSE(facts.expired);
}

TEST(certificates, a_node_without_a_group_has_no_unit_in_its_name)
{
	identity ca = make_ca();
	certificate_request request;
	request.common_name = "AGENT-1";

	identity node = make(request, &ca);

	X509_NAME *subject = X509_get_subject_name(node.certificate.get());
	EXPECT_EQ(X509_NAME_entry_count(subject), 1);
}

TEST(certificates, a_broker_is_known_by_its_hosts_and_addresses_only)
{
	identity ca = make_ca();
	certificate_request request;
	request.kind = certificate_kind::broker;
	request.common_name = "broker";
	request.hosts = {"localhost", "bus.example"};
	request.addresses = {"127.0.0.1"};

	identity broker = make(request, &ca);

	EXPECT_EQ(verify(ca, broker, X509_PURPOSE_SSL_SERVER, "localhost"), X509_V_OK);
	EXPECT_EQ(verify(ca, broker, X509_PURPOSE_SSL_SERVER, "bus.example"), X509_V_OK);
	EXPECT_EQ(verify(ca, broker, X509_PURPOSE_SSL_SERVER, nullptr, "127.0.0.1"), X509_V_OK);
	EXPECT_EQ(verify(ca, broker, X509_PURPOSE_SSL_SERVER, "other.example"), X509_V_ERR_HOSTNAME_MISMATCH);
	EXPECT_EQ(verify(ca, broker, X509_PURPOSE_SSL_SERVER, nullptr, "127.0.0.2"), X509_V_ERR_IP_ADDRESS_MISMATCH);
	EXPECT_NE(verify(ca, broker, X509_PURPOSE_SSL_CLIENT), X509_V_OK);
}

TEST(certificates, another_ca_does_not_vouch_for_a_node)
{
	identity ca = make_ca();
	identity other = make_ca();
	certificate_request request;
	request.common_name = "AGENT-1";

	identity node = make(request, &ca);

	EXPECT_NE(verify(other, node, X509_PURPOSE_SSL_CLIENT), X509_V_OK);
}

TEST(certificates, keys_are_on_the_p_256_curve)
{
	identity ca = make_ca();

	char curve[32] = "";
	size_t length = 0;
	EXPECT_EQ(EVP_PKEY_get_group_name(ca.key.get(), curve, sizeof(curve), &length), 1);

	EXPECT_STREQ(curve, "prime256v1");
}

TEST(certificates, validity_runs_from_the_day_asked_for)
{
	identity ca = make_ca();
	const struct {
		int start_days;
		int days;
		int result;
		bool expired;
	} rows[] = {
			{-1, 30, X509_V_OK, false},
			{-30, 10, X509_V_ERR_CERT_HAS_EXPIRED, true},
			{5, 10, X509_V_ERR_CERT_NOT_YET_VALID, false},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.start_days);
		certificate_request request;
		request.common_name = "AGENT-1";
		request.start_days = row.start_days;
		request.days = row.days;

		identity node = make(request, &ca);

		EXPECT_EQ(verify(ca, node, X509_PURPOSE_SSL_CLIENT), row.result);
		EXPECT_EQ(describe_certificate(node.certificate.get()).expired, row.expired);
	}
}

TEST(certificates, an_address_that_is_none_fails_with_the_name_of_the_certificate)
{
	identity ca = make_ca();
	certificate_request request;
	request.kind = certificate_kind::broker;
	request.common_name = "broker";
	request.addresses = {"127.0.0.1.5"};
	identity made;
	std::string error;

	EXPECT_FALSE(make_identity(request, &ca, made, error));

	EXPECT_THAT(error, testing::HasSubstr("\"broker\""));
	EXPECT_EQ(made.certificate, nullptr);
}

TEST(certificates, pem_texts_give_the_same_identity_again)
{
	identity ca = make_ca();
	identity read;
	std::string error;

	ASSERT_TRUE(parse_identity(key_pem(ca), certificate_pem(ca), read, error)) << error;

	EXPECT_EQ(X509_cmp(ca.certificate.get(), read.certificate.get()), 0);
	EXPECT_EQ(EVP_PKEY_eq(ca.key.get(), read.key.get()), 1);
}

TEST(certificates, a_key_of_another_certificate_is_refused)
{
	identity ca = make_ca();
	identity other = make_ca();
	identity read;
	std::string error;

	EXPECT_FALSE(parse_identity(key_pem(other), certificate_pem(ca), read, error));

	EXPECT_EQ(error, "the private key does not belong to the certificate");
}

TEST(certificates, texts_that_are_no_pem_are_refused)
{
	identity ca = make_ca();
	identity read;
	std::string error;

	EXPECT_FALSE(parse_identity("", "nonsense", read, error));
	EXPECT_THAT(error, testing::HasSubstr("not a certificate"));
	EXPECT_FALSE(parse_identity("nonsense", certificate_pem(ca), read, error));
	EXPECT_THAT(error, testing::HasSubstr("not an unencrypted private key"));
}
