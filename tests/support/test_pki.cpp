#include "support/test_pki.h"

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>

namespace
{

using key_pointer = std::unique_ptr<EVP_PKEY, test_key_free>;
using certificate_pointer = std::unique_ptr<X509, test_certificate_free>;

void require(bool done, const char *what)
{
	if (done)
		return;
	fprintf(stderr, "test certificates: %s failed\n", what);
	abort();
}

std::string text_of(BIO *bio)
{
	char *data = nullptr;
	const long length = BIO_get_mem_data(bio, &data);
	std::string text(data, static_cast<size_t>(length));
	BIO_free(bio);
	return text;
}

std::string key_text(EVP_PKEY *key)
{
	BIO *bio = BIO_new(BIO_s_mem());
	require(PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr) == 1, "writing a key");
	return text_of(bio);
}

std::string certificate_text(X509 *certificate)
{
	BIO *bio = BIO_new(BIO_s_mem());
	require(PEM_write_bio_X509(bio, certificate) == 1, "writing a certificate");
	return text_of(bio);
}

key_pointer new_key()
{
	key_pointer key(EVP_EC_gen("P-256"));
	require(key != nullptr, "making a key");
	return key;
}

void add_name(X509_NAME *name, const char *field, const std::string &text)
{
	const auto *bytes = reinterpret_cast<const unsigned char *>(text.data());
	require(X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8, bytes, static_cast<int>(text.size()), -1, 0) == 1,
			"adding a name");
}

void add_extension(X509 *certificate, int nid, const std::string &value)
{
	X509V3_CTX context;
	X509V3_set_ctx_nodb(&context);
	X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
	X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
	require(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, "adding an extension");
	X509_EXTENSION_free(extension);
}

certificate_pointer new_certificate(EVP_PKEY *key, const test_subject &subject)
{
	certificate_pointer certificate(X509_new());
	uint64_t serial = 0;
	require(RAND_bytes(reinterpret_cast<unsigned char *>(&serial), sizeof(serial)) == 1, "drawing a serial number");
	ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()), serial >> 1);
	X509_set_version(certificate.get(), X509_VERSION_3);
	X509_gmtime_adj(X509_getm_notBefore(certificate.get()), subject.valid_from_s);
	X509_gmtime_adj(X509_getm_notAfter(certificate.get()), subject.valid_to_s);
	X509_set_pubkey(certificate.get(), key);

	X509_NAME *name = X509_get_subject_name(certificate.get());
	for (const std::string &common_name : subject.common_names)
		add_name(name, "CN", common_name);
	for (const std::string &unit : subject.units)
		add_name(name, "OU", unit);
	return certificate;
}

void sign(X509 *certificate, const X509_NAME *issuer, EVP_PKEY *key)
{
	require(X509_set_issuer_name(certificate, issuer) == 1 && X509_sign(certificate, key, EVP_sha256()) > 0,
			"signing a certificate");
}

} // namespace

test_ca test_ca_new(const std::string &name)
{
	test_ca ca;
	ca.key = new_key();
	ca.certificate = new_certificate(ca.key.get(), {.common_names = {name}});
	add_extension(ca.certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
	add_extension(ca.certificate.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
	sign(ca.certificate.get(), X509_get_subject_name(ca.certificate.get()), ca.key.get());
	ca.certificate_pem = certificate_text(ca.certificate.get());
	return ca;
}

test_credentials test_ca_issue(const test_ca &ca, const test_subject &subject)
{
	const key_pointer key = new_key();
	const certificate_pointer certificate = new_certificate(key.get(), subject);
	add_extension(certificate.get(), NID_basic_constraints, "critical,CA:FALSE");
	add_extension(certificate.get(), NID_ext_key_usage, "serverAuth,clientAuth");
	if (!subject.alternative_names.empty())
		add_extension(certificate.get(), NID_subject_alt_name, subject.alternative_names);
	sign(certificate.get(), X509_get_subject_name(ca.certificate.get()), ca.key.get());
	return {key_text(key.get()), certificate_text(certificate.get())};
}

std::string test_encrypt_key(const std::string &key_pem, const std::string &password)
{
	BIO *source = BIO_new_mem_buf(key_pem.data(), static_cast<int>(key_pem.size()));
	const key_pointer key(PEM_read_bio_PrivateKey(source, nullptr, nullptr, nullptr));
	BIO_free(source);
	require(key != nullptr, "reading a key");

	BIO *bio = BIO_new(BIO_s_mem());
	require(PEM_write_bio_PrivateKey(bio, key.get(), EVP_aes_256_cbc(),
					reinterpret_cast<const unsigned char *>(password.data()), static_cast<int>(password.size()),
					nullptr, nullptr) == 1,
			"encrypting a key");
	return text_of(bio);
}

std::string test_ed25519_key()
{
	const key_pointer key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
	require(key != nullptr, "making an Ed25519 key");
	return key_text(key.get());
}
