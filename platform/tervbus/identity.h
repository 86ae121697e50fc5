// A node's X.509 identity: its names, and the TLS context that presents and checks certificates. Keys and certificates
// are PEM in memory and never touch a file.
#pragma once

#include "tervbus.h"

#include "bus_names.h"
#include "record.h"

#include <openssl/ssl.h>

using tls_context = scoped<SSL_CTX, SSL_CTX_free>;

// What one handshake has shown, noted by the context that it ran under.
struct tls_report {
	int verify_error = X509_V_OK; // why the broker's certificate was refused
	int alert = -1;               // the alert that the broker sent
	bool complete = false;        // from this node's side
};

// The names in the node's certificate: exactly one CN, the unit address; the first OU, if any, the group. False, with
// *names unchanged and the reason, a constant text, in *why, when there is no such certificate or a name is not usable.
bool identity_names(const tervbus_identity *identity, bus_names *names, const char **why);

// A client context for the connection to that host: TLS 1.2 or later, the broker's certificate and host name verified.
// NULL, with the reason, a constant text, in *why, for an identity that cannot be used: no or a bad key, an encrypted
// one, one that is not the certificate's. The report is borrowed by the context and written by every handshake under
// it.
tls_context identity_tls_context(
		const tervbus_identity *identity, const char *host, tls_report *report, const char **why);

// What a broker of the same CA finds wrong with the node's own certificate, by the clock of now; NULL for nothing. A
// constant text.
const char *identity_fault(SSL_CTX *context);
