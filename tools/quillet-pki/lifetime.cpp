// The commands for what comes after an identity was made: renew, revoke, show.
#include "commands.h"

#include <filesystem>

#include <openssl/x509v3.h>

#include "authority.h"
#include "broker_config.h"

namespace
{

bool same_certificate(const identity &left, const identity &right)
{
	return X509_cmp(left.certificate.get(), right.certificate.get()) == 0;
}

std::string node_folder(const std::string &directory, const std::string &name)
{
	return directory + "/" + name;
}

// The certificates that the CA has signed for the name.
void find_issued(
		const std::string &directory, const identity &ca, const std::string &name, std::vector<identity> &found)
{
	std::vector<std::string> paths = {node_folder(directory, name) + "/cert.pem"};
	std::error_code failure;
	for (const auto &entry : std::filesystem::directory_iterator(issued_folder(directory), failure))
		paths.push_back(entry.path().string());
	for (const std::string &path : paths) {
		identity held;
		std::string unreadable;
		if (!load_certificate(path, held, unreadable) ||
				describe_certificate(held.certificate.get()).common_name != name ||
				X509_verify(held.certificate.get(), ca.key.get()) != 1)
			continue;
		bool known = false;
		for (const identity &other : found)
			known = known || same_certificate(held, other);
		if (!known)
			found.push_back(std::move(held));
	}
}

// Those that are neither revoked nor run out and, where current is one, are not it.
std::vector<X509 *> still_good(
		const std::vector<identity> &issued, const revocation_list &revoked, const identity *current)
{
	std::vector<X509 *> good;
	for (const identity &held : issued) {
		if (is_revoked(revoked, held.certificate.get()) || describe_certificate(held.certificate.get()).expired ||
				(current != nullptr && same_certificate(held, *current)))
			continue;
		good.push_back(held.certificate.get());
	}
	return good;
}

bool refuse_unknown_node(const std::string &directory, const std::string &name, std::string &error)
{
	for (const stored_node &node : list_nodes(directory)) {
		if (node.name != name)
			continue;
		if (node.role != "uplink")
			return true;
		error = "the CA of the other broker has made \"" + name + "\"; have it renewed there, then uplink --force here";
		return false;
	}
	error = "there is no node \"" + name + "\" in " + directory + "; quillet-pki --dir " + directory +
			" show lists those that there are";
	return false;
}

// The certificate in place, and with keep_key the key.
bool load_present(const std::string &folder, bool keep_key, identity &held, std::string &error)
{
	std::string key;
	std::string certificate;
	if (!read_file(folder + "/cert.pem", certificate, error) ||
			(keep_key && !read_file(folder + "/private.pem", key, error)))
		return false;
	if (keep_key && key.empty()) {
		error = folder + "/private.pem is empty; renew without --keep-key";
		return false;
	}
	if (!parse_identity(key, certificate, held, error)) {
		error = folder + ": " + error + "; make this identity anew with --force";
		return false;
	}
	return true;
}

certificate_request request_like(const certificate_facts &facts, bool broker, const pki_validity &validity)
{
	certificate_request request;
	request.kind = broker ? certificate_kind::broker : certificate_kind::node;
	request.common_name = facts.common_name;
	request.group = facts.group;
	request.hosts = facts.hosts;
	request.addresses = facts.addresses;
	request.start_days = validity.start_days;
	request.days = validity.days;
	return request;
}

bool refuse_revoked(const std::string &directory, const identity &held, const std::string &name, std::string &error)
{
	revocation_list revoked;
	if (!load_revocations(directory, revoked, error))
		return false;
	if (!is_revoked(revoked, held.certificate.get()))
		return true;
	error = "\"" + name + "\" is revoked; to take it back in, make it anew with --force";
	return false;
}

// Until when it can be used: a CA takes with it what it has signed.
std::string end_text(const identity &held, const identity &ca)
{
	const bool with_ca = ca.certificate &&
			X509_check_issued(ca.certificate.get(), held.certificate.get()) == X509_V_OK &&
			ends_before(ca.certificate.get(), held.certificate.get());
	const certificate_facts facts = describe_certificate(with_ca ? ca.certificate.get() : held.certificate.get());
	std::string text = (facts.expired ? "EXPIRED on " : "valid until ") + facts.not_after;
	if (!facts.expired)
		text += " (" + std::to_string(facts.days_left) + " days)";
	return text + (with_ca ? ", when its CA ends" : "");
}

bool show_certificate(const std::string &label, const std::string &path, const std::string &behind, const identity &ca,
		const revocation_list &revoked, std::ostream &out, std::string &error)
{
	identity held;
	if (!load_certificate(path, held, error))
		return false;
	certificate_facts facts = describe_certificate(held.certificate.get());
	out << label << "  " << facts.common_name;
	if (!facts.group.empty())
		out << "  group " << facts.group;
	out << "  " << end_text(held, ca) << behind << (is_revoked(revoked, held.certificate.get()) ? "  REVOKED\n" : "\n");
	return true;
}

bool show_node(const std::string &directory, const stored_node &node, const identity &own_ca,
		const revocation_list &revoked, std::ostream &out, std::string &error)
{
	const std::string folder = node_folder(directory, node.name);
	std::string label = node.role;
	label.resize(9, ' ');
	std::string behind;
	for (const std::string &unit : node.units)
		behind += (behind.empty() ? "  for " : ",") + unit;
	identity far_ca;
	if (node.role == "uplink" && !load_certificate(folder + "/ca.pem", far_ca, error))
		return false;
	return show_certificate(
			label, folder + "/cert.pem", behind, node.role == "uplink" ? far_ca : own_ca, revoked, out, error);
}

} // namespace

bool pki_renew(const std::string &directory, const renew_options &options, std::ostream &out, std::string &error)
{
	if (options.name.empty() && !options.broker) {
		error = "renew whom? Name a node, or --broker";
		return false;
	}
	const std::string folder = options.broker ? broker_folder(directory) : node_folder(directory, options.name);
	folder_lock lock;
	identity ca;
	if (!lock_folder(directory, lock, error) || !load_ca(directory, ca, error))
		return false;
	if (options.broker && !file_exists(folder + "/cert.pem")) {
		error = "there is no broker in " + directory + "; make one first: quillet-pki --dir " + directory + " broker";
		return false;
	}
	identity held;
	if ((!options.broker && !refuse_unknown_node(directory, options.name, error)) ||
			!load_present(folder, options.keep_key, held, error) ||
			!refuse_revoked(directory, held, options.name, error))
		return false;
	identity fresh;
	if (options.keep_key)
		fresh.key = std::move(held.key);
	const certificate_facts facts = describe_certificate(held.certificate.get());
	if (!make_identity(request_like(facts, options.broker, options.validity), &ca, fresh, error) ||
			!store_identity(directory, folder, fresh, error))
		return false;
	out << facts.common_name << " renewed: " << folder << "\n"
		<< cut_short_text(fresh, options.validity.start_days, options.validity.days)
		<< (options.broker ? "The broker uses it from its next start; SIGHUP is no way to make it (see "
							 "docs/fleet.md).\n"
						   : "Give the node its new files.\n" + stay_good_text(directory, options.name));
	return true;
}

bool pki_revoke(const std::string &directory, const revoke_options &options, std::ostream &out, std::string &error)
{
	identity ca;
	revocation_list revoked;
	if (options.name == "broker") {
		error = "nodes read no list of revoked certificates, so a broker cannot be revoked; if its key is out, make a "
				"new "
				"CA: init --force";
		return false;
	}
	folder_lock lock;
	if (!lock_folder(directory, lock, error) || !load_ca(directory, ca, error) ||
			!load_revocations(directory, revoked, error))
		return false;
	std::vector<identity> issued;
	find_issued(directory, ca, options.name, issued);
	identity current;
	if (options.old_only && !load_certificate(node_folder(directory, options.name) + "/cert.pem", current, error))
		return false;
	const std::vector<X509 *> good = still_good(issued, revoked, options.old_only ? &current : nullptr);
	if (good.empty()) {
		error = issued.empty() ? "the CA has signed no certificate of \"" + options.name + "\"; quillet-pki --dir " +
						directory + " show lists the nodes"
							   : "\"" + options.name + "\" has no certificate left to revoke";
		return false;
	}
	// Out of the rules first: after a failure of the list the same command may be given again.
	revocation_list after;
	std::string list;
	std::string rules;
	if (!make_revocations(ca, revoked.get(), good, after, error) || !revocations_text(after, list, error) ||
			!prepare_rules(directory, after, nullptr, rules, error) || !refresh_rules(directory, rules, out, error) ||
			!store_revocations(directory, list, error))
		return false;
	out << options.name << ": revoked " << good.size() << (good.size() == 1 ? " certificate" : " certificates") << ": "
		<< revocation_path(directory) << "\n"
		<< "A broker reads this list when it starts: start it anew. SIGHUP is no way to do it (see docs/fleet.md).\n";
	return true;
}

bool pki_show(const std::string &directory, std::ostream &out, std::string &error)
{
	if (!file_exists(ca_certificate_path(directory))) {
		error = "there is no CA in " + directory + "; make one first: quillet-pki --dir " + directory + " init";
		return false;
	}
	revocation_list revoked;
	identity ca;
	if (!load_revocations(directory, revoked, error) ||
			!show_certificate("ca       ", ca_certificate_path(directory), "", ca, revoked, out, error) ||
			!load_certificate(ca_certificate_path(directory), ca, error))
		return false;
	const std::string broker = broker_folder(directory) + "/cert.pem";
	if (file_exists(broker) && !show_certificate("broker   ", broker, "", ca, revoked, out, error))
		return false;
	for (const stored_node &node : list_nodes(directory)) {
		if (!show_node(directory, node, ca, revoked, out, error))
			return false;
	}
	out << "revoked    " << count_revoked(revoked) << " in all\n";
	return true;
}
