// A broker that says what a test wants said: TLS, one connection at a time, the answers to CONNECT and SUBSCRIBE, and
// perhaps a DISCONNECT; a PUBLISH is never answered. For the answers, and the silence, that the real one cannot be
// brought to give.
#pragma once

#include "support/event.h"
#include "support/loopback.h"
#include "support/test_pki.h"

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// What a client says, in its order. A script that falls silent at one of them takes it, and answers nothing to it and
// to what follows; at the hello it has not even begun the handshake, in the handshake it breaks off in mid answer.
enum class broker_stage { hello, handshake, connect, subscribe, publish, none };

struct broker_script {
	uint8_t connect_reason = 0;
	uint8_t subscribe_reason = 1;                  // for every filter
	std::optional<uint8_t> disconnect_reason = {}; // sent after the SUBACK, and the connection closed
	broker_stage silent_from = broker_stage::none;
};

class test_scripted_broker
{
public:
	test_scripted_broker(const test_ca &ca, const broker_script &script);
	~test_scripted_broker();
	test_scripted_broker(const test_scripted_broker &) = delete;
	test_scripted_broker &operator=(const test_scripted_broker &) = delete;

	std::string url() const;
	// Waits until clients have got there that often; false when they do not.
	bool wait_for(broker_stage stage, unsigned count = 1);
	// What the last CONNECT said behind its length. Only once the connect stage has been waited for.
	const std::vector<uint8_t> &connect() const;

private:
	void run();
	void serve_connection(int fd);
	void serve(SSL *ssl);
	void answer_connect(SSL *ssl);
	bool answer_subscribe(SSL *ssl, const std::vector<uint8_t> &body);
	bool silent_at(broker_stage stage); // notes that a client has got there

	const broker_script script_;
	SSL_CTX *context_ = nullptr;
	std::atomic<int> connection_{-1};
	const loopback_port port_;
	std::vector<uint8_t> connect_;
	event reached_[static_cast<size_t>(broker_stage::none)];
	std::thread thread_;
};
