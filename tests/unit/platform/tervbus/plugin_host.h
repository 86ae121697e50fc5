// A broker in the test's hand: it loads the plugin that is linked to the program, asks it what mosquitto would, and
// keeps what the plugin says. So are the clocks: a program that has plugin_host.cpp wraps clock_gettime and time.
#pragma once

#include "support/test_pki.h"

#include <mosquitto.h>
#include <mosquitto_broker.h>
#include <mosquitto_plugin.h>

#include <optional>
#include <string>
#include <vector>

// A client as the plugin asks about it.
struct mosquitto {
	std::string name;
	std::unique_ptr<X509, test_certificate_free> certificate = nullptr; // NULL: gone, or never there
	std::string address = "127.0.0.1";                                  // empty: a bridge of the broker's own
	int protocol = 5;                                                   // 0: a mere name, of something kept
};

struct host_publish {
	std::string topic;
	std::string payload;
	bool retained = false;
	const mosquitto_property *properties = nullptr; // borrowed
};

class plugin_host
{
public:
	~plugin_host();

	// False when the plugin does not load. Each option is "<key> <value>".
	bool load(const std::vector<std::string> &options);
	void unload();

	// A client with a certificate, or without any.
	mosquitto *client(const std::string &name, const std::string &group = "");
	mosquitto *without_certificate(const std::string &name);
	mosquitto *own_bridge(const std::string &name);

	// The plugin's answers, as mosquitto comes to ask.
	int acl(mosquitto *client, int access, const host_publish &publish);
	int message(mosquitto *client, const host_publish &publish);
	// A publish: first the one, then the other.
	int publish(mosquitto *client, const host_publish &publish);
	void disconnect(mosquitto *client);

	// What the plugin has said since the last call.
	std::vector<std::string> said();

	static void set_wall_clock(int64_t seconds); // since 1970
	static void set_boot_clock(int64_t seconds); // since the machine's start

private:
	int ask(int event, void *data);

	test_ca ca_ = test_ca_new("plugin CA");
	std::vector<std::unique_ptr<mosquitto>> clients_;
	void *user_ = nullptr;
	bool loaded_ = false;
};
