// A mosquitto of the test's own: TLS with client certificates, the project's plugin, 127.0.0.1, a free port, a folder
// of its own that goes with it. The process is the test's child, ends with it, and is ended by its number.
#pragma once

#include "support/loopback.h"
#include "support/test_pki.h"

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

struct test_broker_options {
	std::string rules;                   // the text of the rules file
	std::vector<std::string> bridges;    // "<CN> <unit>,<unit>"
	std::string tls_version = "tlsv1.2"; // the lowest
};

class test_broker
{
public:
	// Its certificate is for 127.0.0.1 and localhost.
	test_broker(const test_ca &ca, const test_broker_options &options);
	~test_broker();
	test_broker(const test_broker &) = delete;
	test_broker &operator=(const test_broker &) = delete;

	void start();     // and wait until it listens; fails the test when it does not
	bool try_start(); // the same without failing: false when it ends instead
	void stop();      // orderly
	void kill();      // as a power cut would
	void freeze();
	void thaw();
	void reload(); // its configuration and rules, as an administrator would

	// For the next start.
	void set_certificate(const test_credentials &credentials);
	void set_trust(const std::string &ca_certificate_pem);
	void set_rules(const std::string &rules);

	uint16_t port() const;
	std::string url() const;                      // tcp://127.0.0.1:port
	std::string log() const;                      // what it has logged so far
	bool wait_log(const std::string &text) const; // until its log has this: false after 10 s

private:
	bool listens() const;
	void end(int signal);
	void write_configuration(const test_broker_options &options) const;
	std::string path(const char *name) const;

	std::string folder_;
	const loopback_port port_; // also while the broker is away
	pid_t process_ = -1;
};

void test_write_file(const std::string &path, const std::string &text);
std::string test_read_file(const std::string &path);
