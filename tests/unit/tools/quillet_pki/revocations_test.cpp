#include "revocations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>

class revocations : public testing::Test
{
protected:
	identity make(const std::string &name, const identity *issuer)
	{
		certificate_request request;
		request.kind = issuer == nullptr ? certificate_kind::ca : certificate_kind::node;
		request.common_name = name;
		identity made;
		EXPECT_TRUE(make_identity(request, issuer, made, error)) << error;
		return made;
	}

	revocation_list list_of(X509_CRL *before, const std::vector<X509 *> &certificates)
	{
		revocation_list made;
		EXPECT_TRUE(make_revocations(ca, before, certificates, made, error)) << error;
		return made;
	}

	// What OpenSSL says of the node when it has to look at the list, as the broker does.
	int verify(const identity &node, const revocation_list &list)
	{
		X509_STORE *store = X509_STORE_new();
		X509_STORE_add_cert(store, ca.certificate.get());
		X509_STORE_add_crl(store, list.get());
		X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
		X509_STORE_CTX *context = X509_STORE_CTX_new();
		X509_STORE_CTX_init(context, store, node.certificate.get(), nullptr);
		X509_verify_cert(context);
		const int result = X509_STORE_CTX_get_error(context);
		X509_STORE_CTX_free(context);
		X509_STORE_free(store);
		return result;
	}

	std::string error;
	identity ca = make("Test CA", nullptr);
	identity first = make("A1", &ca);
	identity second = make("A2", &ca);
};

TEST_F(revocations, an_empty_list_lets_everybody_in)
{
	const revocation_list list = list_of(nullptr, {});

	EXPECT_EQ(verify(first, list), X509_V_OK);
	EXPECT_EQ(count_revoked(list), 0u);
}

TEST_F(revocations, a_listed_certificate_is_refused_and_no_other)
{
	const revocation_list list = list_of(nullptr, {first.certificate.get()});

	EXPECT_EQ(verify(first, list), X509_V_ERR_CERT_REVOKED);
	EXPECT_EQ(verify(second, list), X509_V_OK);
	EXPECT_TRUE(is_revoked(list, first.certificate.get()));
	EXPECT_FALSE(is_revoked(list, second.certificate.get()));
}

TEST_F(revocations, a_later_list_keeps_what_was_on_the_one_before)
{
	const revocation_list before = list_of(nullptr, {first.certificate.get()});

	const revocation_list after = list_of(before.get(), {second.certificate.get()});

	EXPECT_TRUE(is_revoked(after, first.certificate.get()));
	EXPECT_TRUE(is_revoked(after, second.certificate.get()));
	EXPECT_EQ(count_revoked(after), 2u);
}

TEST_F(revocations, a_certificate_is_listed_once)
{
	const revocation_list before = list_of(nullptr, {first.certificate.get()});

	EXPECT_EQ(count_revoked(list_of(before.get(), {first.certificate.get()})), 1u);
}

TEST_F(revocations, the_list_is_good_until_the_ca_ends)
{
	const revocation_list list = list_of(nullptr, {});

	EXPECT_EQ(ASN1_TIME_compare(X509_CRL_get0_nextUpdate(list.get()), X509_get0_notAfter(ca.certificate.get())), 0);
}

TEST_F(revocations, are_the_same_after_a_way_through_a_file)
{
	revocation_list read;

	ASSERT_TRUE(parse_revocations(revocations_pem(list_of(nullptr, {first.certificate.get()})), read, error)) << error;

	EXPECT_EQ(verify(first, read), X509_V_ERR_CERT_REVOKED);
}

TEST_F(revocations, a_text_that_is_no_list_is_refused)
{
	revocation_list read;

	EXPECT_FALSE(parse_revocations("nonsense", read, error));

	EXPECT_THAT(error, testing::HasSubstr("not a list"));
}

TEST_F(revocations, without_a_list_nothing_is_revoked)
{
	EXPECT_FALSE(is_revoked(nullptr, first.certificate.get()));
	EXPECT_EQ(count_revoked(nullptr), 0u);
}
