#include "fleet_link.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace
{

using clock_type = std::chrono::steady_clock;

struct address_list_deleter {
	void operator()(addrinfo *list) const
	{
		freeaddrinfo(list);
	}
};

int left_ms(clock_type::time_point end)
{
	const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - clock_type::now()).count();
	return left > 0 ? static_cast<int>(left) : 0;
}

std::string ssl_cause()
{
	char text[256] = "no detail";
	const unsigned long code = ERR_peek_last_error();
	if (code != 0)
		ERR_error_string_n(code, text, sizeof(text));
	ERR_clear_error();
	return text;
}

// Instead of OpenSSL's prompt on the terminal.
int refuse_password(char *, int, int, void *)
{
	return 0;
}

bool wait_connected(int descriptor, clock_type::time_point end)
{
	pollfd waited = {descriptor, POLLOUT, 0};
	int failure = 0;
	socklen_t length = sizeof(failure);
	if (poll(&waited, 1, left_ms(end)) != 1) {
		errno = ETIMEDOUT;
		return false;
	}
	if (getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &failure, &length) != 0)
		return false;
	errno = failure;
	return failure == 0;
}

int connect_one(const addrinfo *address, clock_type::time_point end)
{
	const int descriptor = socket(address->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
	if (descriptor < 0)
		return -1;
	const int on = 1;
	(void)setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)); // only slower without
	if (connect(descriptor, address->ai_addr, address->ai_addrlen) == 0 ||
			(errno == EINPROGRESS && wait_connected(descriptor, end)))
		return descriptor;
	close(descriptor);
	return -1;
}

int connect_host(const std::string &host, uint16_t port, clock_type::time_point end, std::string &error)
{
	addrinfo wanted = {};
	addrinfo *found = nullptr;
	wanted.ai_socktype = SOCK_STREAM;
	const int failure = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &wanted, &found);
	if (failure != 0) {
		error = "the name does not resolve: " + std::string(gai_strerror(failure));
		return -1;
	}
	const std::unique_ptr<addrinfo, address_list_deleter> list(found);
	for (const addrinfo *address = list.get(); address != nullptr; address = address->ai_next) {
		const int descriptor = connect_one(address, end);
		if (descriptor >= 0)
			return descriptor;
	}
	error = std::string("no connection: ") + strerror(errno);
	return -1;
}

// Only a broker that proves this name is talked to.
bool demand_name(SSL *ssl, const std::string &host)
{
	unsigned char numeric[sizeof(in6_addr)];
	if (inet_pton(AF_INET, host.c_str(), numeric) == 1 || inet_pton(AF_INET6, host.c_str(), numeric) == 1)
		return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str()) == 1;
	SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
	return SSL_set1_host(ssl, host.c_str()) == 1 && SSL_set_tlsext_host_name(ssl, host.c_str()) == 1;
}

bool shake_hands(SSL *ssl, int descriptor, clock_type::time_point end, std::string &error)
{
	for (;;) {
		const int result = SSL_connect(ssl);
		if (result == 1)
			return true;
		const int wants = SSL_get_error(ssl, result);
		if (wants != SSL_ERROR_WANT_READ && wants != SSL_ERROR_WANT_WRITE) {
			const long verdict = SSL_get_verify_result(ssl);
			error = "no TLS: " + (verdict != X509_V_OK ? X509_verify_cert_error_string(verdict) : ssl_cause());
			ERR_clear_error();
			return false;
		}
		pollfd waited = {descriptor, static_cast<short>(wants == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT), 0};
		if (poll(&waited, 1, left_ms(end)) < 1) {
			error = "no TLS: no answer";
			return false;
		}
	}
}

} // namespace

fleet_context fleet_load(const std::string &folder, std::string &error)
{
	fleet_context context(SSL_CTX_new(TLS_client_method()));
	if (!context || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1) {
		error = "OpenSSL cannot be used: " + ssl_cause();
		return nullptr;
	}
	SSL_CTX_set_default_passwd_cb(context.get(), refuse_password);
	SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
	SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
	if (SSL_CTX_load_verify_locations(context.get(), (folder + "/ca.pem").c_str(), nullptr) != 1)
		error = folder + "/ca.pem cannot be used: " + ssl_cause();
	else if (SSL_CTX_use_certificate_chain_file(context.get(), (folder + "/cert.pem").c_str()) != 1)
		error = folder + "/cert.pem cannot be used: " + ssl_cause();
	else if (SSL_CTX_use_PrivateKey_file(context.get(), (folder + "/private.pem").c_str(), SSL_FILETYPE_PEM) != 1 ||
			SSL_CTX_check_private_key(context.get()) != 1)
		error = folder + "/private.pem cannot be used: " + ssl_cause();
	else
		return context;
	return nullptr;
}

bool fleet_open(
		SSL_CTX *context, const std::string &host, uint16_t port, int timeout_ms, fleet_link &link, std::string &error)
{
	const auto end = clock_type::now() + std::chrono::milliseconds(timeout_ms);
	link.descriptor = connect_host(host, port, end, error);
	if (link.descriptor < 0)
		return false;
	link.ssl = SSL_new(context);
	if (link.ssl == nullptr || SSL_set_fd(link.ssl, link.descriptor) != 1 || !demand_name(link.ssl, host)) {
		error = "OpenSSL cannot be used: " + ssl_cause();
		return false;
	}
	return shake_hands(link.ssl, link.descriptor, end, error);
}
