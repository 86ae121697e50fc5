// The commands for the two ends of a bridge.
#include "commands.h"

#include <filesystem>

#include "authority.h"
#include "broker_config.h"
#include "host_port.h"
#include "names.h"

namespace
{

// What stands in a line of the broker's configuration, where a blank ends a word and a comma a unit.
std::string bridged_name_problem(const std::string &name)
{
	std::string problem = name_problem(name);
	if (problem.empty() && name.find_first_of(" ,") != std::string::npos)
		problem = "the name holds a blank or a comma, which the broker's configuration of a bridge cannot";
	return problem;
}

std::string list_problem(const std::string &directory, const std::string &bridge, const std::vector<std::string> &names)
{
	for (size_t i = 0; i < names.size(); i++) {
		std::string problem = bridged_name_problem(names[i]);
		const std::string side = bridge_side_of(directory, names[i]);
		for (const stored_node &node : list_nodes(directory))
			if (node.name == names[i])
				problem = "this folder has a node of that name: it comes in by itself";
		if (!side.empty() && side.find("\"" + bridge + "\"") == std::string::npos)
			problem = "it is " + side;
		if (names[i] == bridge)
			problem = "that is the bridge itself";
		for (size_t k = 0; k < i; k++)
			if (names[k] == names[i])
				problem = "it is named twice";
		if (!problem.empty())
			return "\"" + names[i] + "\" cannot be behind the bridge \"" + bridge + "\": " + problem;
	}
	return "";
}

std::string bridge_problem(const std::string &directory, const bridge_options &options)
{
	std::string problem = node_name_problem(options.name);
	if (problem.empty())
		problem = bridged_name_problem(options.name);
	if (options.name == "DM-CLIENT")
		problem = "the DM-CLIENT is a node";
	for (const stored_node &node : list_nodes(directory))
		if (node.name == options.name && node.role != "bridge")
			problem = "there is a node of that name; --force does not make a bridge of it";
	if (!problem.empty())
		return "the bridge \"" + options.name + "\" cannot be made: " + problem;
	if (options.units.empty())
		return "a bridge needs the units behind it: --units";
	for (const std::string &unit : options.units)
		if (unit == "DM-CLIENT")
			return "the DM-CLIENT commands units; it is not one behind a bridge (at an uplink it can be a peer)";
	return list_problem(directory, options.name, options.units);
}

std::string lines(const std::vector<std::string> &names)
{
	std::string text;
	for (const std::string &name : names)
		text += name + "\n";
	return text;
}

bool write_open(const std::string &path, const std::string &text, std::string &error)
{
	return write_file(path, text, store_mode::open_to_readers, error);
}

// What the far end has given: the bridge's identity and its units.
struct bridge_files {
	std::string name;
	std::string key;
	std::string certificate;
	std::string trust;
	std::vector<std::string> units;
};

bool read_bridge(const std::string &folder, bridge_files &files, std::string &error)
{
	identity held;
	if (!read_file(folder + "/private.pem", files.key, error) ||
			!read_file(folder + "/cert.pem", files.certificate, error) ||
			!read_file(folder + "/ca.pem", files.trust, error)) {
		error += "; name the folder that quillet-pki bridge has made for the other broker";
		return false;
	}
	if (files.key.empty() || !parse_identity(files.key, files.certificate, held, error)) {
		error = folder + ": " + (files.key.empty() ? "private.pem is empty" : error) + "; have the bridge made anew";
		return false;
	}
	files.name = describe_certificate(held.certificate.get()).common_name;
	files.units = read_lines(folder + "/units");
	return true;
}

std::string uplink_problem(const std::string &directory, const uplink_options &options, const bridge_files &bridge)
{
	std::string problem = node_name_problem(bridge.name);
	if (problem.empty())
		problem = bridged_name_problem(bridge.name);
	for (const std::string &unit : bridge.units)
		if (problem.empty())
			problem = bridged_name_problem(unit);
	for (const stored_node &node : list_nodes(directory))
		if (node.name == bridge.name && node.role != "uplink")
			problem = "there is a node of that name";
	if (problem.empty() && bridge.units.empty())
		problem = "it names no units";
	if (!problem.empty())
		return "the uplink \"" + bridge.name + "\" cannot be made: " + problem;
	if (options.peers.empty())
		return "an uplink needs the nodes at its far end that the units work for: --peers";
	for (const std::string &peer : options.peers)
		for (const std::string &unit : bridge.units)
			if (peer == unit)
				return "\"" + peer + "\" is a unit of this side, so it is no peer";
	return list_problem(directory, bridge.name, options.peers);
}

bool broker_takes_bridges(const std::string &directory, std::string &error)
{
	std::string configuration;
	const std::string path = broker_folder(directory) + "/mosquitto.conf";
	if (!file_exists(path)) {
		error = "there is no broker in " + directory + "; make one first: quillet-pki --dir " + directory + " broker";
		return false;
	}
	if (!read_file(path, configuration, error))
		return false;
	if (configuration.find("include_dir " + bridges_folder(directory)) == std::string::npos) {
		error = path + " does not read " + bridges_folder(directory) + "; make it anew: broker --force";
		return false;
	}
	return true;
}

bool write_uplink(
		const std::string &directory, const uplink_settings &settings, const bridge_files &bridge, std::string &error)
{
	const std::string &folder = settings.folder;
	return make_folder(folder, error) && make_folder(bridges_folder(directory), error) &&
			write_file(folder + "/private.pem", bridge.key, store_mode::secret, error) &&
			write_open(folder + "/cert.pem", bridge.certificate, error) &&
			write_open(folder + "/ca.pem", bridge.trust, error) &&
			write_open(folder + "/units", lines(bridge.units), error) &&
			write_open(folder + "/peers", lines(settings.peers), error) &&
			write_open(folder + "/role", "uplink\n", error) &&
			give_to_owner(folder, broker_folder(directory) + "/private.pem", error) &&
			write_open(bridges_folder(directory) + "/" + bridge.name + ".conf", uplink_configuration(settings), error);
}

} // namespace

bool pki_bridge(const std::string &directory, const bridge_options &options, std::ostream &out, std::string &error)
{
	const std::string folder = directory + "/" + options.name;
	const stored_node made = {options.name, "bridge", options.units};
	folder_lock lock;
	identity ca;
	revocation_list revoked;
	std::string trust;
	std::string rules;
	if (!lock_folder(directory, lock, error))
		return false;
	error = bridge_problem(directory, options);
	if (!error.empty() ||
			!refuse_overwriting_identity(folder, options.force, "its other end has to be given its new files", error) ||
			!load_ca(directory, ca, error) || !read_file(ca_certificate_path(directory), trust, error) ||
			!load_revocations(directory, revoked, error) || !prepare_rules(directory, revoked, &made, rules, error))
		return false;
	const std::string replaced = replaced_text(directory, options.name, ca, revoked);
	certificate_request request;
	request.common_name = options.name;
	request.start_days = options.validity.start_days;
	request.days = options.validity.days;
	identity bridge;
	if (!make_identity(request, &ca, bridge, error) || !make_folder(folder, error) ||
			!store_identity(directory, folder, bridge, error) || !write_open(folder + "/ca.pem", trust, error) ||
			!write_open(folder + "/units", lines(options.units), error) ||
			!write_open(folder + "/role", "bridge\n", error))
		return false;
	out << "bridge \"" << options.name << "\" made: " << folder << "\n"
		<< "Take this folder to the broker of its units; there: quillet-pki --dir DIR uplink " << options.name
		<< " --to HOST:PORT --peers NODE,NODE\n"
		<< cut_short_text(bridge, options.validity.start_days, options.validity.days) << replaced;
	return refresh_rules(directory, rules, out, error);
}

bool pki_uplink(const std::string &directory, const uplink_options &options, std::ostream &out, std::string &error)
{
	const std::string absolute = std::filesystem::absolute(directory).lexically_normal().string();
	folder_lock lock;
	bridge_files bridge;
	uplink_settings settings;
	if (!parse_host_port(options.to, settings.host, settings.port)) {
		error = "--to \"" + options.to + "\" is not HOST:PORT, as in bus.example:8883 or [2001:db8::7]:8883";
		return false;
	}
	if (!lock_folder(absolute, lock, error) || !broker_takes_bridges(absolute, error) ||
			!read_bridge(options.folder, bridge, error))
		return false;
	error = uplink_problem(absolute, options, bridge);
	settings.folder = absolute + "/" + bridge.name;
	if (!error.empty() ||
			!refuse_overwriting_identity(settings.folder, options.force, "the broker has to be started anew", error))
		return false;
	const stored_node made = {bridge.name, "uplink", bridge.units, options.peers};
	revocation_list revoked;
	std::string rules;
	if (!load_revocations(absolute, revoked, error) || !prepare_rules(absolute, revoked, &made, rules, error))
		return false;
	settings.name = bridge.name;
	settings.direct = options.direct;
	settings.units = bridge.units;
	settings.peers = options.peers;
	if (!options.direct) {
		settings.host = "127.0.0.1";
		settings.port = static_cast<uint16_t>(options.port);
	}
	if (!write_uplink(absolute, settings, bridge, error))
		return false;
	out << "uplink \"" << bridge.name << "\" made: " << settings.folder << "\n";
	if (!options.direct)
		out << "Start, as the broker's user: quillet-uplink --identity " << settings.folder << " --to " << options.to
			<< " --port " << options.port << "\n";
	out << "The broker opens the bridge from its next start.\n";
	return refresh_rules(absolute, rules, out, error);
}
