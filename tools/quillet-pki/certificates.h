// Keys and certificates in memory: EC P-256 keys, X.509 version 3 certificates signed with SHA-256.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

struct key_deleter {
	void operator()(EVP_PKEY *key) const
	{
		EVP_PKEY_free(key);
	}
};

struct certificate_deleter {
	void operator()(X509 *certificate) const
	{
		X509_free(certificate);
	}
};

struct revocation_deleter {
	void operator()(X509_CRL *list) const
	{
		X509_CRL_free(list);
	}
};

using revocation_list = std::unique_ptr<X509_CRL, revocation_deleter>; // NULL: nothing is revoked

struct identity {
	std::unique_ptr<EVP_PKEY, key_deleter> key;
	std::unique_ptr<X509, certificate_deleter> certificate;
};

enum class certificate_kind { ca, node, broker };

struct certificate_request {
	certificate_kind kind = certificate_kind::node;
	std::string common_name;
	std::string group;                  // organizational unit; empty for none
	std::vector<std::string> hosts;     // DNS names a broker answers to
	std::vector<std::string> addresses; // IP addresses a broker answers to
	int start_days = -1;                // first day of validity, counted from now
	int days = 3650;                    // days from the first to the last
};

// Makes a certificate, for the key in made or, where it is empty, for a new one. issuer signs; a NULL issuer makes a
// self-signed one. It ends when its issuer does, whatever is asked for: nobody takes it after that. On failure false,
// with the cause in error and made as it was.
bool make_identity(const certificate_request &request, const identity *issuer, identity &made, std::string &error);

// Each returns an empty text when OpenSSL fails.
std::string key_pem(const identity &held);
std::string certificate_pem(const identity &held);

// Reads an identity back from PEM texts; the key may be empty when only the certificate is wanted. An encrypted key
// fails. On failure false, with the cause in error.
bool parse_identity(const std::string &key, const std::string &certificate, identity &read, std::string &error);

struct certificate_facts {
	std::string common_name;
	std::string group;
	std::vector<std::string> hosts;     // of a broker
	std::vector<std::string> addresses; // of a broker
	std::string not_after;              // as OpenSSL prints it, in GMT
	int days_left = 0;                  // whole days
	bool expired = false;
};

certificate_facts describe_certificate(X509 *certificate);

// The whole days by which it ends before the day that was asked for.
int days_cut_off(X509 *certificate, int start_days, int days);

// Whether the first one ends before the second.
bool ends_before(X509 *first, X509 *second);

// The serial number in hexadecimal; empty when OpenSSL fails.
std::string serial_text(X509 *certificate);
