// The list of revoked certificates in memory (RFC 5280, version 2).
#pragma once

#include <string>
#include <vector>

#include "certificates.h"

// A list with what is on before (NULL for none) and these certificates, signed by the CA. It ends when the CA does: a
// broker refuses everybody once its list is out of date. On failure false, with the cause in error.
bool make_revocations(const identity &ca, X509_CRL *before, const std::vector<X509 *> &certificates,
		revocation_list &made, std::string &error);

// Empty when OpenSSL fails.
std::string revocations_pem(const revocation_list &list);

bool parse_revocations(const std::string &text, revocation_list &read, std::string &error);

bool is_revoked(const revocation_list &list, X509 *certificate);

size_t count_revoked(const revocation_list &list);
