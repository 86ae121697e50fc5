// The texts that the broker reads: its configuration and the rules of who may send to whom.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "store.h"

struct broker_settings {
	std::string directory; // absolute path of the folder of identities
	std::string listen = "127.0.0.1";
	uint16_t port = 9133;
	std::string plugin; // absolute path of the broker plugin
	std::string user;   // whom a broker started by root becomes
};

std::string broker_folder(const std::string &directory);
std::string rules_path(const std::string &directory);

// Where the broker looks for the bridges that it opens: files *.conf.
std::string bridges_folder(const std::string &directory);

struct uplink_settings {
	std::string folder; // absolute path of the uplink's identity
	std::string name;   // of its certificate
	std::string host;   // where the connection goes: the far broker, or quillet-uplink on this machine
	uint16_t port = 0;
	bool direct = false; // to the far broker, so with TLS
	std::vector<std::string> units;
	std::vector<std::string> peers;
};

// The broker's configuration of a bridge to another broker.
std::string uplink_configuration(const uplink_settings &settings);

// mosquitto.conf.
std::string broker_configuration(const broker_settings &settings);

// The rules: each requester reaches each agent and each agent each requester; nothing else is let through. The units of
// a bridge are agents, the peers of an uplink are requesters for its units.
std::string broker_rules(const std::vector<stored_node> &nodes);
