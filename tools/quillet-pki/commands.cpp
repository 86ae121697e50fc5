#include "commands.h"

#include <filesystem>

#include <arpa/inet.h>
#include <pwd.h>
#include <unistd.h>

#include "authority.h"
#include "broker_config.h"
#include "certificates.h"
#include "names.h"
#include "store.h"

bool pki_init(const std::string &directory, const init_options &options, std::ostream &out, std::string &error)
{
	std::string problem = name_problem(options.name);
	if (!problem.empty()) {
		error = "the CA cannot be called \"" + options.name + "\": " + problem;
		return false;
	}
	const std::string loss = "every identity made with it has to be made anew";
	folder_lock lock;
	if (!lock_folder(directory, lock, error) ||
			!refuse_overwriting(ca_certificate_path(directory), options.force, loss, error) ||
			!refuse_overwriting(ca_key_path(directory), options.force, loss, error) ||
			!make_folder(directory + "/ca", error))
		return false;
	certificate_request request;
	request.kind = certificate_kind::ca;
	request.common_name = options.name;
	request.start_days = options.validity.start_days;
	request.days = options.validity.days;
	identity ca;
	if (!make_identity(request, nullptr, ca, error) || !store_ca(directory, ca, error))
		return false;
	out << "CA \"" << options.name << "\" made: " << ca_certificate_path(directory) << "\n"
		<< "Keep " << ca_key_path(directory) << " secret: whoever has it can be any node.\n";
	return true;
}

// Why a node cannot have this name, or nothing.
static std::string taken_by_bridge(const std::string &directory, const std::string &name)
{
	for (const stored_node &node : list_nodes(directory))
		if (node.name == name && (node.role == "bridge" || node.role == "uplink"))
			return "there is a bridge of that name; choose another";
	const std::string side = bridge_side_of(directory, name);
	return side.empty() ? "" : "it is " + side;
}

bool pki_node(const std::string &directory, const node_options &options, std::ostream &out, std::string &error)
{
	std::string problem = node_name_problem(options.name);
	if (problem.empty() && !options.group.empty())
		problem = name_problem(options.group);
	if (!problem.empty()) {
		error = "the node \"" + options.name + "\"" +
				(options.group.empty() ? "" : " of group \"" + options.group + "\"") + " cannot be made: " + problem;
		return false;
	}
	folder_lock lock;
	if (!lock_folder(directory, lock, error))
		return false;
	problem = taken_by_bridge(directory, options.name);
	if (!problem.empty()) {
		error = "the node \"" + options.name + "\" cannot be made: " + problem;
		return false;
	}
	const std::string folder = directory + "/" + options.name;
	const stored_node made = {options.name, options.role};
	identity ca;
	revocation_list revoked;
	std::string rules;
	if (!refuse_overwriting_identity(folder, options.force, "the node has to be given its new files", error) ||
			!load_ca(directory, ca, error) || !load_revocations(directory, revoked, error) ||
			!prepare_rules(directory, revoked, &made, rules, error))
		return false;
	const std::string replaced = replaced_text(directory, options.name, ca, revoked);
	certificate_request request;
	request.kind = certificate_kind::node;
	request.common_name = options.name;
	request.group = options.group;
	request.start_days = options.validity.start_days;
	request.days = options.validity.days;
	identity node;
	if (!make_identity(request, &ca, node, error) || !make_folder(folder, error) ||
			!store_identity(directory, folder, node, error) ||
			!write_file(folder + "/role", options.role + "\n", store_mode::open_to_readers, error))
		return false;
	out << options.role << " \"" << options.name << "\" made: " << folder << "\n"
		<< cut_short_text(node, options.validity.start_days, options.validity.days) << replaced;
	return refresh_rules(directory, rules, out, error);
}

static std::string own_user()
{
	const passwd *entry = getpwuid(geteuid());
	return entry != nullptr ? entry->pw_name : "mosquitto";
}

// Each of these ends at the end of a line in the broker's configuration.
static bool check_lines(const std::vector<std::string> &texts, std::string &error)
{
	for (const std::string &text : texts) {
		for (char byte : text) {
			if (static_cast<unsigned char>(byte) < 0x20) {
				error = "\"" + text + "\" holds a control character";
				return false;
			}
		}
	}
	return true;
}

static bool is_ip_address(const std::string &text)
{
	unsigned char address[sizeof(in6_addr)];
	return inet_pton(AF_INET, text.c_str(), address) == 1 || inet_pton(AF_INET6, text.c_str(), address) == 1;
}

static bool check_reached_by(const broker_options &options, std::string &error)
{
	if (options.hosts.empty() && options.addresses.empty()) {
		error = "the broker needs a host name or an IP address that nodes reach it by: --host or --ip";
		return false;
	}
	for (const std::string &host : options.hosts) {
		if (host.empty() || host.find_first_of(",: ") != std::string::npos) {
			error = "\"" + host + "\" is not a host name";
			return false;
		}
	}
	for (const std::string &address : options.addresses) {
		if (!is_ip_address(address)) {
			error = "\"" + address + "\" is not an IP address; a host name is given with --host";
			return false;
		}
	}
	return true;
}

static bool check_broker_options(const broker_options &options, std::string &error)
{
	if (options.port < 1 || options.port > 65535) {
		error = "the port has to be from 1 to 65535";
		return false;
	}
	if (!check_reached_by(options, error))
		return false;
	if (!file_exists(options.plugin)) {
		error = "the broker plugin \"" + options.plugin +
				"\" does not exist; build it (target quillet_broker_plugin) and name it with --plugin";
		return false;
	}
	std::error_code ignored;
	if (std::filesystem::is_directory(options.plugin, ignored)) {
		error = "\"" + options.plugin + "\" is a folder; --plugin names the file quillet_broker_plugin.so";
		return false;
	}
	return true;
}

static bool write_broker_files(const std::string &directory, const broker_options &options, const identity &broker,
		const std::string &rules, std::string &error)
{
	broker_settings settings;
	settings.directory = directory;
	settings.listen = options.listen;
	settings.port = static_cast<uint16_t>(options.port);
	settings.plugin = std::filesystem::absolute(options.plugin).string();
	settings.user = options.user.empty() ? own_user() : options.user;
	const std::string folder = broker_folder(directory);
	if (!make_folder(folder + "/data", error) || !make_folder(bridges_folder(directory), error) ||
			!store_identity(directory, folder, broker, error) || !write_rules(directory, rules, error) ||
			!write_file(folder + "/mosquitto.conf", broker_configuration(settings), store_mode::open_to_readers, error))
		return false;
	return options.user.empty() || give_to_user(folder, options.user, error);
}

// A folder from before there were lists gets its empty one: the broker does not start without.
static bool make_up_revocations(const std::string &directory, const identity &ca, std::string &error)
{
	return file_exists(revocation_path(directory)) || store_empty_revocations(directory, ca, error);
}

bool pki_broker(const std::string &directory, const broker_options &options, std::ostream &out, std::string &error)
{
	const std::string absolute = std::filesystem::absolute(directory).lexically_normal().string();
	const std::string configuration = broker_folder(absolute) + "/mosquitto.conf";
	const std::string loss = "the broker has to be started anew";
	folder_lock lock;
	identity ca;
	revocation_list revoked;
	std::string rules;
	if (!check_lines({absolute, options.plugin, options.listen, options.user}, error) ||
			!check_broker_options(options, error) || !lock_folder(absolute, lock, error) ||
			!refuse_overwriting(configuration, options.force, loss, error) ||
			!refuse_overwriting_identity(broker_folder(absolute), options.force, loss, error) ||
			!load_ca(absolute, ca, error) || !load_revocations(absolute, revoked, error) ||
			!make_rules(absolute, revoked, nullptr, rules, error))
		return false;
	certificate_request request;
	request.kind = certificate_kind::broker;
	request.common_name = "broker";
	request.hosts = options.hosts;
	request.addresses = options.addresses;
	request.start_days = options.validity.start_days;
	request.days = options.validity.days;
	identity broker;
	if (!make_identity(request, &ca, broker, error) || !make_up_revocations(absolute, ca, error) ||
			!write_broker_files(absolute, options, broker, rules, error))
		return false;
	out << "broker made; start it with: mosquitto -c " << configuration << "\n"
		<< cut_short_text(broker, options.validity.start_days, options.validity.days) << "It logs to "
		<< broker_folder(absolute) << "/data/broker.log.\n";
	return true;
}
