// What quillet-pki does, one function for each of its subcommands. Each returns true, or false with a text in error
// that says what is wrong and what to do about it.
#pragma once

#include <ostream>
#include <string>
#include <vector>

struct pki_validity {
	int start_days = -1; // a day back by default, for units whose clock is a little late
	int days = 3650;
};

struct init_options {
	std::string name = "Quillet CA";
	pki_validity validity;
	bool force = false;
};

struct node_options {
	std::string name;
	std::string group;
	std::string role = "agent";
	pki_validity validity;
	bool force = false;
};

struct broker_options {
	std::vector<std::string> hosts = {"localhost"};
	std::vector<std::string> addresses = {"127.0.0.1", "::1"};
	std::string listen = "127.0.0.1";
	unsigned port = 9133;
	std::string plugin;
	std::string user; // empty: whoever runs quillet-pki
	pki_validity validity;
	bool force = false;
};

struct renew_options {
	std::string name;    // empty for the broker
	bool broker = false; // the broker's own identity instead of a node's
	bool keep_key = false;
	pki_validity validity;
};

struct revoke_options {
	std::string name;
	bool old_only = false; // all but the certificate in the node's folder
};

struct bridge_options {
	std::string name;
	std::vector<std::string> units;
	pki_validity validity;
	bool force = false;
};

struct uplink_options {
	std::string folder; // of the bridge, as pki_bridge made it
	std::string to;     // "<host>:<port>" of the far broker
	std::vector<std::string> peers;
	unsigned port = 9134; // of quillet-uplink on this machine
	bool direct = false;  // without it
	bool force = false;
};

bool pki_init(const std::string &directory, const init_options &options, std::ostream &out, std::string &error);
bool pki_node(const std::string &directory, const node_options &options, std::ostream &out, std::string &error);
bool pki_broker(const std::string &directory, const broker_options &options, std::ostream &out, std::string &error);

// The identity of a bridge, at the broker that it comes to.
bool pki_bridge(const std::string &directory, const bridge_options &options, std::ostream &out, std::string &error);

// The same bridge, at the broker that opens it.
bool pki_uplink(const std::string &directory, const uplink_options &options, std::ostream &out, std::string &error);

bool pki_renew(const std::string &directory, const renew_options &options, std::ostream &out, std::string &error);
bool pki_revoke(const std::string &directory, const revoke_options &options, std::ostream &out, std::string &error);
bool pki_show(const std::string &directory, std::ostream &out, std::string &error);
