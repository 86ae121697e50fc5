#include "fleet_link.h"

#include <gtest/gtest.h>

#include <netdb.h>
#include <openssl/pem.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "support/loopback.h"
#include "support/test_pki.h"

// The tests' own names are on this machine.
extern "C" int __real_getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **found);
extern "C" int __wrap_getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **found)
{
	return __real_getaddrinfo(std::string(host).ends_with(".example.test") ? "127.0.0.1" : host, service, hints, found);
}

namespace
{

constexpr int timeout_ms = 30000; // for a slow machine; nothing here waits for it to pass

// A far broker as far as TLS goes: it shakes hands once, with a certificate for the names given.
class tls_server
{
public:
	tls_server(const test_ca &ca, const std::string &names) : context(SSL_CTX_new(TLS_server_method()))
	{
		const test_credentials own = test_ca_issue(ca, {.common_names = {"broker"}, .alternative_names = names});
		BIO *key = BIO_new_mem_buf(own.key_pem.data(), static_cast<int>(own.key_pem.size()));
		BIO *certificate = BIO_new_mem_buf(own.certificate_pem.data(), static_cast<int>(own.certificate_pem.size()));
		EVP_PKEY *parsed_key = PEM_read_bio_PrivateKey(key, nullptr, nullptr, nullptr);
		X509 *parsed_certificate = PEM_read_bio_X509(certificate, nullptr, nullptr, nullptr);
		usable = SSL_CTX_use_certificate(context, parsed_certificate) == 1 &&
				SSL_CTX_use_PrivateKey(context, parsed_key) == 1;
		EVP_PKEY_free(parsed_key);
		X509_free(parsed_certificate);
		BIO_free(key);
		BIO_free(certificate);
		SSL_CTX_set_num_tickets(context, 0); // nothing is written to who has gone after the handshake
		port.listen();
		thread = std::thread([this] { serve(); });
	}

	~tls_server()
	{
		port.shut();
		thread.join();
		SSL_CTX_free(context);
	}

	tls_server(const tls_server &) = delete;
	tls_server &operator=(const tls_server &) = delete;

	loopback_port port;
	bool usable = false;

private:
	void serve()
	{
		const int connection = port.accept();
		if (connection < 0)
			return;
		SSL *ssl = SSL_new(context);
		SSL_set_fd(ssl, connection);
		(void)SSL_accept(ssl); // what became of it, the other side tells
		SSL_free(ssl);
		close(connection);
	}

	SSL_CTX *context;
	std::thread thread;
};

class fleet_link_names : public testing::Test
{
protected:
	void SetUp() override
	{
		char name[] = "/tmp/quillet-fleet-XXXXXX";
		ASSERT_NE(mkdtemp(name), nullptr);
		folder = name;
		const test_credentials own = test_ca_issue(ca, {.common_names = {"CAR-7"}});
		std::ofstream(folder / "ca.pem") << ca.certificate_pem;
		std::ofstream(folder / "cert.pem") << own.certificate_pem;
		std::ofstream(folder / "private.pem") << own.key_pem;
	}

	void TearDown() override
	{
		std::filesystem::remove_all(folder);
	}

	// Whether a broker with this certificate is taken for the host.
	bool opens(const std::string &host, const std::string &names)
	{
		tls_server server(ca, names);
		EXPECT_TRUE(server.usable);
		error.clear();
		const fleet_context context = fleet_load(folder, error);
		fleet_link link;
		return context && fleet_open(context.get(), host, server.port.number(), timeout_ms, link, error);
	}

	test_ca ca = test_ca_new("Fleet CA");
	std::filesystem::path folder;
	std::string error;
};

} // namespace

TEST_F(fleet_link_names, takes_the_broker_that_is_named)
{
	EXPECT_TRUE(opens("127.0.0.1", "IP:127.0.0.1")) << error;
	EXPECT_TRUE(opens("bus-1.example.test", "DNS:bus-1.example.test")) << error;
	EXPECT_TRUE(opens("bus-1.example.test", "DNS:*.example.test")) << error;
}

TEST_F(fleet_link_names, refuses_a_broker_of_another_name)
{
	for (const char *names : {"DNS:bus-2.example.test", "DNS:example.test", "DNS:*.test", "IP:127.0.0.1"}) {
		SCOPED_TRACE(names);

		EXPECT_FALSE(opens("bus-1.example.test", names));

		EXPECT_EQ(error, "no TLS: hostname mismatch");
	}
}

TEST_F(fleet_link_names, refuses_a_name_with_a_wildcard_for_a_part_of_a_label)
{
	for (const char *names : {"DNS:bus-*.example.test", "DNS:*-1.example.test", "DNS:b*1.example.test"}) {
		SCOPED_TRACE(names);

		EXPECT_FALSE(opens("bus-1.example.test", names));

		EXPECT_EQ(error, "no TLS: hostname mismatch");
	}
}
