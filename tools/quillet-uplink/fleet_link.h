// The side of the far broker: a TCP connection with mutual TLS.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <openssl/ssl.h>
#include <unistd.h>

struct fleet_context_deleter {
	void operator()(SSL_CTX *context) const
	{
		SSL_CTX_free(context);
	}
};
using fleet_context = std::unique_ptr<SSL_CTX, fleet_context_deleter>;

struct fleet_link {
	int descriptor = -1; // not blocking
	SSL *ssl = nullptr;

	fleet_link() = default;
	fleet_link(const fleet_link &) = delete;
	fleet_link &operator=(const fleet_link &) = delete;
	~fleet_link()
	{
		SSL_free(ssl);
		if (descriptor >= 0)
			close(descriptor);
	}
};

// The key, certificate and CA in a folder: private.pem, cert.pem, ca.pem. NULL on failure, with the cause in error.
fleet_context fleet_load(const std::string &folder, std::string &error);

// Connects and proves both names within the time. False on failure, with the cause in error.
bool fleet_open(
		SSL_CTX *context, const std::string &host, uint16_t port, int timeout_ms, fleet_link &link, std::string &error);
