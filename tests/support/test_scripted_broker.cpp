#include "support/test_scripted_broker.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

struct packet {
	uint8_t type = 0;
	std::vector<uint8_t> body;
};

bool read_bytes(SSL *ssl, uint8_t *to, size_t count)
{
	for (size_t done = 0; done < count;) {
		const int part = SSL_read(ssl, to + done, static_cast<int>(count - done));
		if (part <= 0)
			return false;
		done += static_cast<size_t>(part);
	}
	return true;
}

bool read_packet(SSL *ssl, packet *read)
{
	uint8_t byte = 0;
	size_t length = 0;
	if (!read_bytes(ssl, &read->type, 1))
		return false;
	for (unsigned shift = 0; shift < 28; shift += 7) {
		if (!read_bytes(ssl, &byte, 1))
			return false;
		length |= size_t{byte & 0x7Fu} << shift;
		if ((byte & 0x80) == 0)
			break;
	}
	read->body.resize(length);
	return read_bytes(ssl, read->body.data(), length);
}

// A SUBSCRIBE without properties: identifier, property length, then length, filter, options of each.
size_t count_filters(const std::vector<uint8_t> &body)
{
	size_t count = 0;
	for (size_t at = 3; at + 1 < body.size(); count++)
		at += 3u + (size_t{body[at]} << 8 | body[at + 1]);
	return count;
}

void write_bytes(SSL *ssl, const std::vector<uint8_t> &bytes)
{
	SSL_write(ssl, bytes.data(), static_cast<int>(bytes.size()));
}

SSL_CTX *server_context(const test_credentials &own)
{
	SSL_CTX *context = SSL_CTX_new(TLS_server_method());
	BIO *source = BIO_new_mem_buf(own.certificate_pem.data(), -1);
	X509 *certificate = PEM_read_bio_X509(source, nullptr, nullptr, nullptr);
	BIO_free(source);
	source = BIO_new_mem_buf(own.key_pem.data(), -1);
	EVP_PKEY *key = PEM_read_bio_PrivateKey(source, nullptr, nullptr, nullptr);
	BIO_free(source);
	EXPECT_EQ(SSL_CTX_use_certificate(context, certificate), 1);
	EXPECT_EQ(SSL_CTX_use_PrivateKey(context, key), 1);
	X509_free(certificate);
	EVP_PKEY_free(key);
	return context;
}

void wait_until_readable(int fd)
{
	pollfd ready{fd, POLLIN, 0};
	(void)poll(&ready, 1, -1); // until the client speaks or goes
}

void listen_in_silence(int fd)
{
	char part[4096];
	while (recv(fd, part, sizeof(part), 0) > 0)
		;
}

// Half of what the handshake answers to the client's hello.
void answer_half(SSL *ssl, int fd)
{
	SSL_set0_wbio(ssl, BIO_new(BIO_s_mem()));
	const int flags = fcntl(fd, F_GETFL);
	fcntl(fd, F_SETFL, flags | O_NONBLOCK);
	EXPECT_LT(SSL_accept(ssl), 0); // it waits for the client's part
	fcntl(fd, F_SETFL, flags);

	char *answer = nullptr;
	const long length = BIO_get_mem_data(SSL_get_wbio(ssl), &answer);
	EXPECT_GT(length, 1);
	(void)send(fd, answer, static_cast<size_t>(length / 2), MSG_NOSIGNAL); // the client may have gone
}

} // namespace

test_scripted_broker::test_scripted_broker(const test_ca &ca, const broker_script &script) : script_(script)
{
	context_ = server_context(
			test_ca_issue(ca, {.common_names = {"scripted broker"}, .alternative_names = "IP:127.0.0.1"}));
	port_.listen();
	thread_ = std::thread([this] { run(); });
}

test_scripted_broker::~test_scripted_broker()
{
	port_.shut();
	if (connection_ >= 0)
		shutdown(connection_, SHUT_RDWR);
	thread_.join();
	SSL_CTX_free(context_);
}

std::string test_scripted_broker::url() const
{
	return port_.url();
}

bool test_scripted_broker::wait_for(broker_stage stage, unsigned count)
{
	return reached_[static_cast<size_t>(stage)].wait(count);
}

const std::vector<uint8_t> &test_scripted_broker::connect() const
{
	return connect_;
}

bool test_scripted_broker::silent_at(broker_stage stage)
{
	reached_[static_cast<size_t>(stage)].raise();
	return stage >= script_.silent_from;
}

void test_scripted_broker::run()
{
	for (;;) {
		const int fd = port_.accept();
		if (fd < 0)
			return;
		connection_ = fd;
		serve_connection(fd);
		connection_ = -1;
		close(fd);
	}
}

void test_scripted_broker::serve_connection(int fd)
{
	SSL *ssl = SSL_new(context_);
	SSL_set_fd(ssl, fd);
	wait_until_readable(fd);
	if (silent_at(broker_stage::hello)) {
		listen_in_silence(fd);
	} else if (script_.silent_from == broker_stage::handshake) {
		answer_half(ssl, fd);
		(void)silent_at(broker_stage::handshake); // it is
		listen_in_silence(fd);
	} else if (SSL_accept(ssl) == 1) {
		serve(ssl);
	}
	SSL_free(ssl);
}

void test_scripted_broker::serve(SSL *ssl)
{
	packet next;
	while (read_packet(ssl, &next)) {
		const unsigned kind = next.type >> 4;
		if (kind == 1)
			connect_ = next.body;
		if (kind == 1 && !silent_at(broker_stage::connect))
			answer_connect(ssl);
		else if (kind == 8 && !silent_at(broker_stage::subscribe) && !answer_subscribe(ssl, next.body))
			return;
		else if (kind == 3)
			(void)silent_at(broker_stage::publish); // always
	}
}

void test_scripted_broker::answer_connect(SSL *ssl)
{
	write_bytes(ssl, {0x20, 3, 0, script_.connect_reason, 0});
}

// False: the connection is over.
bool test_scripted_broker::answer_subscribe(SSL *ssl, const std::vector<uint8_t> &body)
{
	const size_t count = count_filters(body);
	std::vector<uint8_t> answer = {0x90, static_cast<uint8_t>(3 + count), body[0], body[1], 0};
	answer.insert(answer.end(), count, script_.subscribe_reason);
	write_bytes(ssl, answer);
	if (script_.disconnect_reason)
		write_bytes(ssl, {0xE0, 1, *script_.disconnect_reason});
	return !script_.disconnect_reason;
}
