// quillet-pki: makes a certification authority, the identities of nodes, and the broker's identity with its
// configuration and its rules. Exit status 0, 1 with a line on standard error, or 2 for wrong use.

#include <iostream>

#include <CLI/CLI.hpp>

#include "commands.h"

static void add_validity(CLI::App *command, pki_validity &validity)
{
	command->add_option("--days", validity.days, "Days of validity")
			->check(CLI::Range(1, 36500))
			->capture_default_str();
	command->add_option("--start-days", validity.start_days, "First day of validity, counted from today")
			->check(CLI::Range(-36500, 36500))
			->capture_default_str();
}

static void add_force(CLI::App *command, bool &force)
{
	command->add_flag("--force", force, "Replace what exists");
}

static CLI::App *add_init(CLI::App &app, init_options &options)
{
	CLI::App *command = app.add_subcommand("init", "Make the certification authority");
	command->add_option("--name", options.name, "Its name")->capture_default_str();
	add_validity(command, options.validity);
	add_force(command, options.force);
	return command;
}

static CLI::App *add_node(CLI::App &app, node_options &options)
{
	CLI::App *command = app.add_subcommand("node", "Make the identity of an agent or of a requester");
	command->add_option("name", options.name, "Its unit address on the bus")->required();
	command->add_option("--group", options.group, "Its group on the bus");
	command->add_option("--role", options.role,
				   "What the broker's rules let it reach: requesters reach agents, agents "
				   "reach requesters")
			->check(CLI::IsMember({"agent", "requester"}))
			->capture_default_str();
	add_validity(command, options.validity);
	add_force(command, options.force);
	return command;
}

static CLI::App *add_broker(CLI::App &app, broker_options &options)
{
	CLI::App *command = app.add_subcommand("broker", "Make the broker's identity, configuration and rules");
	command->add_option("--host", options.hosts, "Host names that nodes reach it by")->capture_default_str();
	command->add_option("--ip", options.addresses, "IP addresses that nodes reach it by")->capture_default_str();
	command->add_option("--listen", options.listen, "Address to listen on")->capture_default_str();
	command->add_option("--port", options.port, "Port to listen on")->capture_default_str();
	command->add_option("--plugin", options.plugin, "Path of quillet_broker_plugin.so")->required();
	command->add_option("--user", options.user,
			"Whom a broker started by root becomes; its files are given to that user "
			"(default: whoever runs this)");
	add_validity(command, options.validity);
	add_force(command, options.force);
	return command;
}

static CLI::App *add_bridge(CLI::App &app, bridge_options &options)
{
	CLI::App *command = app.add_subcommand("bridge", "Make the identity of another broker that speaks for its units");
	command->add_option("name", options.name, "Its name")->required();
	command->add_option("--units", options.units, "The units behind it, with commas between")
			->required()
			->delimiter(',');
	add_validity(command, options.validity);
	add_force(command, options.force);
	return command;
}

static CLI::App *add_uplink(CLI::App &app, uplink_options &options)
{
	CLI::App *command = app.add_subcommand("uplink", "Have the broker open a bridge that another broker has made");
	command->add_option(
				   "folder", options.folder, "The bridge's folder, as the other broker's quillet-pki bridge made it")
			->required();
	command->add_option("--to", options.to, "HOST:PORT of the other broker, an IPv6 address in brackets")->required();
	command->add_option("--peers", options.peers, "The nodes there that the units work for, with commas between")
			->required()
			->delimiter(',');
	command->add_option("--port", options.port, "Port of quillet-uplink on this machine")
			->check(CLI::Range(1, 65535))
			->capture_default_str();
	command->add_flag("--direct", options.direct, "Without quillet-uplink, for brokers that keep a bridge's session");
	add_force(command, options.force);
	return command;
}

static CLI::App *add_renew(CLI::App &app, renew_options &options)
{
	CLI::App *command = app.add_subcommand("renew",
			"Make a new certificate for a node or the broker, with the same names; the one before stays valid until it "
			"ends or is revoked");
	CLI::Option *name = command->add_option("name", options.name, "The node");
	command->add_flag("--broker", options.broker, "The broker instead of a node")->excludes(name);
	command->add_flag("--keep-key", options.keep_key, "Keep the private key");
	add_validity(command, options.validity);
	return command;
}

static CLI::App *add_revoke(CLI::App &app, revoke_options &options)
{
	CLI::App *command = app.add_subcommand("revoke", "Take a node's certificates back: put them on the broker's list");
	command->add_option("name", options.name, "The node")->required();
	command->add_flag("--old", options.old_only, "Only those from before its last renewal");
	return command;
}

int main(int argc, char **argv)
{
	CLI::App app("Makes the certificates that nodes and broker of the bus know each other by.", "quillet-pki");
	std::string directory;
	app.add_option("--dir", directory, "Folder that holds the CA, the broker and one folder for each node")->required();
	app.require_subcommand(1);
	app.fallthrough();
	init_options init;
	node_options node;
	broker_options broker;
	bridge_options bridge;
	uplink_options uplink;
	renew_options renew;
	revoke_options revoke;
	CLI::App *init_command = add_init(app, init);
	CLI::App *node_command = add_node(app, node);
	CLI::App *broker_command = add_broker(app, broker);
	CLI::App *bridge_command = add_bridge(app, bridge);
	CLI::App *uplink_command = add_uplink(app, uplink);
	CLI::App *renew_command = add_renew(app, renew);
	CLI::App *revoke_command = add_revoke(app, revoke);
	app.add_subcommand("show", "List what the folder holds");
	try {
		app.parse(argc, argv);
	} catch (const CLI::ParseError &problem) {
		return app.exit(problem) == 0 ? 0 : 2;
	}

	std::string error;
	bool done = init_command->parsed() ? pki_init(directory, init, std::cout, error)
			: node_command->parsed()   ? pki_node(directory, node, std::cout, error)
			: broker_command->parsed() ? pki_broker(directory, broker, std::cout, error)
			: bridge_command->parsed() ? pki_bridge(directory, bridge, std::cout, error)
			: uplink_command->parsed() ? pki_uplink(directory, uplink, std::cout, error)
			: renew_command->parsed()  ? pki_renew(directory, renew, std::cout, error)
			: revoke_command->parsed() ? pki_revoke(directory, revoke, std::cout, error)
									   : pki_show(directory, std::cout, error);
	if (!done)
		std::cerr << "quillet-pki: " << error << "\n";
	return done ? 0 : 1;
}
