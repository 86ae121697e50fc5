#include "broker_config.h"

std::string broker_folder(const std::string &directory)
{
	return directory + "/broker";
}

std::string rules_path(const std::string &directory)
{
	return broker_folder(directory) + "/rules";
}

std::string bridges_folder(const std::string &directory)
{
	return broker_folder(directory) + "/bridges";
}

std::string broker_configuration(const broker_settings &settings)
{
	const std::string folder = broker_folder(settings.directory);
	std::string text;
	text += "# Written by quillet-pki.\n"
			"# The plugin guards every listener, and the bridges that this broker opens, only with this.\n"
			"per_listener_settings false\n"
			"user " +
			settings.user +
			"\n"
			"set_tcp_nodelay true\n"
			"# Nothing that the broker has acknowledged is lost when it dies.\n"
			"persistence true\n"
			"persistence_location " +
			folder +
			"/data/\n"
			"autosave_on_changes true\n"
			"autosave_interval 1\n"
			"# For each node that is away or slow: what is above either is dropped, and only the log says so.\n"
			"max_queued_messages 10000\n"
			"max_queued_bytes 67108864\n"
			"message_size_limit 16777216\n"
			"log_dest file " +
			folder +
			"/data/broker.log\n"
			"log_type error\n"
			"log_type warning\n"
			"log_type notice\n";
	text += "\n# Nodes come in with a certificate of the CA; its name is their user name and their client id.\n"
			"listener " +
			std::to_string(settings.port) + " " + settings.listen +
			"\n"
			"allow_anonymous false\n"
			"allow_zero_length_clientid false\n"
			"cafile " +
			settings.directory +
			"/ca/ca.pem\n"
			"crlfile " +
			settings.directory +
			"/ca/crl.pem\n"
			"certfile " +
			folder +
			"/cert.pem\n"
			"keyfile " +
			folder +
			"/private.pem\n"
			"tls_version tlsv1.2\n"
			"require_certificate true\n"
			"use_identity_as_username true\n"
			"use_username_as_clientid true\n"
			"plugin " +
			settings.plugin +
			"\n"
			"plugin_opt_rules " +
			rules_path(settings.directory) +
			"\n"
			"plugin_opt_persistence " +
			folder + "/data\n";
	text += "\n# Bridges that this broker opens.\ninclude_dir " + bridges_folder(settings.directory) + "\n";
	return text;
}

static std::string topic(const std::string &filter, const char *direction)
{
	return "topic movra/v1/" + filter + " " + direction + " 1\n";
}

static std::string uplink_topics(const uplink_settings &settings)
{
	std::string text;
	for (const std::string &unit : settings.units) {
		text += topic("status/+/" + unit, "out");
		for (const std::string &peer : settings.peers) {
			text += topic("ua/" + unit + "/" + peer, "in");
			text += topic("ua/" + peer + "/" + unit, "out");
			if (peer == "DM-CLIENT")
				text += topic("special/0/" + unit, "out");
		}
	}
	return text;
}

std::string uplink_configuration(const uplink_settings &settings)
{
	std::string text = "# Written by quillet-pki: a bridge to another broker.\nconnection " + settings.name + "\n";
	// mosquitto cuts at the last colon: an IPv6 address stands here without brackets.
	text += "address " + settings.host + ":" + std::to_string(settings.port) + "\n";
	text += "# Anything older strips ids and expiry from the messages.\n"
			"bridge_protocol_version mqttv50\n";
	text += "remote_clientid " + settings.name + "\n";
	text += "# By this name the plugin knows what comes in over the bridge.\n";
	text += "local_clientid bridge/" + settings.name + "\n";
	text += "local_username bridge/" + settings.name + "\n";
	text += "cleansession false\n"
			"local_cleansession false\n"
			"notifications false\n"
			"try_private false\n"
			"bridge_attempt_unsubscribe false\n"
			"keepalive_interval 10\n"
			"restart_timeout 1 10\n";
	if (settings.direct) {
		text += "# mosquitto 2.0 asks for no session at the far broker: what comes for the units while the bridge is "
				"cut\n"
				"# is lost. From 2.1 on this keeps it: bridge_session_expiry_interval 3600\n";
		text += "bridge_cafile " + settings.folder + "/ca.pem\n";
		text += "bridge_certfile " + settings.folder + "/cert.pem\n";
		text += "bridge_keyfile " + settings.folder + "/private.pem\n";
		text += "bridge_tls_version tlsv1.2\n";
	}
	return text + uplink_topics(settings);
}

static std::string word(const std::string &name)
{
	return name.find(' ') == std::string::npos ? name : "\"" + name + "\"";
}

static std::string allow(const std::string &sender, const std::string &destination)
{
	return "allow " + word(sender) + " " + word(destination) + "\n";
}

static void allow_each(
		const std::vector<std::string> &senders, const std::vector<std::string> &destinations, std::string &text)
{
	for (const std::string &sender : senders)
		for (const std::string &destination : destinations)
			text += allow(sender, destination);
}

static std::string bridge_line(const std::string &name, const std::vector<std::string> &units)
{
	std::string list;
	for (const std::string &unit : units)
		list += (list.empty() ? "" : ",") + unit;
	return "bridge " + word(name) + " " + word(list) + "\n";
}

static void add_uplink(const stored_node &uplink, std::string &text)
{
	text += "\n# To and from the far end of " + uplink.name + ".\n";
	text += bridge_line("bridge/" + uplink.name, uplink.peers);
	allow_each(uplink.peers, uplink.units, text);
	allow_each(uplink.units, uplink.peers, text);
}

static std::string role_line(const char *role, const std::string &name)
{
	return std::string("role ") + role + " " + word(name) + "\n";
}

// Who is what, and who is behind which bridge: a line or two for each node.
static void add_roles(const std::vector<stored_node> &nodes, std::string &text)
{
	for (const stored_node &node : nodes) {
		if (node.role == "agent")
			text += role_line("agent", node.name);
		if (node.role == "requester")
			text += role_line("requester", node.name);
		if (node.role != "bridge")
			continue;
		text += bridge_line(node.name, node.units);
		for (const std::string &unit : node.units)
			text += role_line("agent", unit);
	}
}

std::string broker_rules(const std::vector<stored_node> &nodes)
{
	std::string text = "# Written by quillet-pki: who may send to whom. What is not allowed here is refused.\n"
					   "# The broker reads this file when it starts and whenever it has changed.\n"
					   "# quillet-pki writes it anew with each node: rules of your own belong in another file.\n"
					   "\n# Requests and replies.\n"
					   "allow +requester +agent\n"
					   "allow +agent +requester\n"
					   "\n# Who is what, and who is behind which bridge.\n";
	add_roles(nodes, text);
	for (const stored_node &node : nodes)
		if (node.role == "uplink")
			add_uplink(node, text);
	return text;
}
