// Keys and certificates for tests, made in memory with OpenSSL: a CA, and whatever it signs.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

struct test_key_free {
	void operator()(EVP_PKEY *key) const
	{
		EVP_PKEY_free(key);
	}
};
struct test_certificate_free {
	void operator()(X509 *certificate) const
	{
		X509_free(certificate);
	}
};

// What a certificate says.
struct test_subject {
	std::vector<std::string> common_names;
	std::vector<std::string> units = {}; // OU
	std::string alternative_names = "";  // as OpenSSL's configuration has it: "IP:127.0.0.1,DNS:localhost"
	int valid_from_s = -3600;            // relative to now
	int valid_to_s = 24 * 3600;
};

struct test_credentials {
	std::string key_pem;
	std::string certificate_pem;
};

struct test_ca {
	std::unique_ptr<EVP_PKEY, test_key_free> key;
	std::unique_ptr<X509, test_certificate_free> certificate;
	std::string certificate_pem;
};

test_ca test_ca_new(const std::string &name);

test_credentials test_ca_issue(const test_ca &ca, const test_subject &subject);

// The key in PEM under a password.
std::string test_encrypt_key(const std::string &key_pem, const std::string &password);

// A key of another kind than all the others, in PEM.
std::string test_ed25519_key();
