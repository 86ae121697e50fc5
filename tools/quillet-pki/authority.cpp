#include "authority.h"

#include <algorithm>
#include <filesystem>

#include "broker_config.h"
#include "rules_limit.h"

std::string ca_key_path(const std::string &directory)
{
	return directory + "/ca/ca.key";
}

std::string ca_certificate_path(const std::string &directory)
{
	return directory + "/ca/ca.pem";
}

std::string issued_folder(const std::string &directory)
{
	return directory + "/ca/issued";
}

std::string revocation_path(const std::string &directory)
{
	return directory + "/ca/crl.pem";
}

bool store_ca(const std::string &directory, const identity &ca, std::string &error)
{
	std::string key = key_pem(ca);
	std::string certificate = certificate_pem(ca);
	if (key.empty() || certificate.empty()) {
		error = "the key or the certificate could not be written as PEM";
		return false;
	}
	// What the old one has taken back is forgotten only once the old one is gone.
	if (!write_file(ca_key_path(directory), key, store_mode::secret, error) ||
			!write_file(ca_certificate_path(directory), certificate, store_mode::open_to_readers, error))
		return false;
	std::error_code failure;
	std::filesystem::remove_all(issued_folder(directory), failure);
	std::filesystem::remove(revocation_path(directory), failure);
	return store_empty_revocations(directory, ca, error);
}

bool load_ca(const std::string &directory, identity &ca, std::string &error)
{
	if (!file_exists(ca_certificate_path(directory))) {
		error = "there is no CA in " + directory + "; make one first: quillet-pki --dir " + directory + " init";
		return false;
	}
	std::string key;
	std::string certificate;
	if (!read_file(ca_key_path(directory), key, error) ||
			!read_file(ca_certificate_path(directory), certificate, error))
		return false;
	if (key.empty()) {
		error = ca_key_path(directory) + " is empty; put the CA's key back, or make a new CA with init --force";
		return false;
	}
	if (!parse_identity(key, certificate, ca, error)) {
		error = "the CA in " + directory + "/ca cannot be used: " + error;
		return false;
	}
	const certificate_facts facts = describe_certificate(ca.certificate.get());
	if (facts.expired)
		error = "the CA in " + directory + "/ca has run out on " + facts.not_after +
				", and with it all that it has signed; make a new one: init --force";
	return !facts.expired;
}

bool load_revocations(const std::string &directory, revocation_list &list, std::string &error)
{
	const std::string path = revocation_path(directory);
	list.reset();
	if (!file_exists(path))
		return true;
	std::string text;
	if (!read_file(path, text, error, largest_revocation_list)) {
		error += "; put the list back from a copy, or begin an empty one with a new CA: init --force";
		return false;
	}
	if (!parse_revocations(text, list, error)) {
		error = path + ": " + error + "; put the list back from a copy, or the revoked certificates are good again";
		return false;
	}
	return true;
}

bool revocations_text(const revocation_list &list, std::string &text, std::string &error, size_t largest)
{
	std::string written = revocations_pem(list);
	if (written.empty())
		error = "the list of revoked certificates could not be written as PEM";
	else if (written.size() > largest)
		error = "the list of revoked certificates would be larger than the " + mebibytes(largest) +
				" that can be read again, so nothing is revoked; make a new CA, whose list is empty: init --force";
	if (written.empty() || written.size() > largest)
		return false;
	text = std::move(written);
	return true;
}

bool store_revocations(const std::string &directory, const std::string &text, std::string &error)
{
	return write_file(revocation_path(directory), text, store_mode::open_to_readers, error);
}

bool store_empty_revocations(const std::string &directory, const identity &ca, std::string &error)
{
	revocation_list list;
	std::string text;
	return make_revocations(ca, nullptr, {}, list, error) && revocations_text(list, text, error) &&
			store_revocations(directory, text, error);
}

bool store_identity(const std::string &directory, const std::string &folder, const identity &made, std::string &error)
{
	std::string key = key_pem(made);
	std::string certificate = certificate_pem(made);
	std::string serial = serial_text(made.certificate.get());
	if (key.empty() || certificate.empty() || serial.empty()) {
		error = "the key or the certificate could not be written as PEM";
		return false;
	}
	// The CA's copy first: what is out can be revoked.
	return make_folder(issued_folder(directory), error) &&
			write_file(issued_folder(directory) + "/" + serial, certificate, store_mode::open_to_readers, error) &&
			write_file(folder + "/private.pem", key, store_mode::secret, error) &&
			write_file(folder + "/cert.pem", certificate, store_mode::open_to_readers, error);
}

bool load_certificate(const std::string &path, identity &held, std::string &error)
{
	std::string text;
	if (!read_file(path, text, error))
		return false;
	if (!parse_identity("", text, held, error)) {
		error = path + ": " + error + "; make this identity anew with --force";
		return false;
	}
	return true;
}

// A certificate that cannot be read counts as good.
static std::vector<stored_node> list_good_nodes(const std::string &directory, const revocation_list &revoked)
{
	std::vector<stored_node> nodes;
	for (const stored_node &node : list_nodes(directory)) {
		identity held;
		std::string unreadable;
		if (load_certificate(directory + "/" + node.name + "/cert.pem", held, unreadable) &&
				is_revoked(revoked, held.certificate.get()))
			continue;
		nodes.push_back(node);
	}
	return nodes;
}

static void put_among(std::vector<stored_node> &nodes, const stored_node &made)
{
	const auto behind = [](const stored_node &node, const std::string &name) {
		return node.name < name;
	};
	const auto place = std::lower_bound(nodes.begin(), nodes.end(), made.name, behind);
	if (place != nodes.end() && place->name == made.name)
		*place = made;
	else
		nodes.insert(place, made);
}

bool make_rules(const std::string &directory, const revocation_list &revoked, const stored_node *made,
		std::string &rules, std::string &error)
{
	std::vector<stored_node> nodes = list_good_nodes(directory, revoked);
	if (made != nullptr)
		put_among(nodes, *made);
	std::string text = broker_rules(nodes);
	if (text.size() > rules_file_max) {
		error = "the broker's rules would take " + std::to_string(text.size()) +
				" bytes, and the broker's plugin reads at most " + mebibytes(rules_file_max) +
				"; nothing is changed. Take nodes that are gone out of " + directory +
				", give some to another broker, or write rules of your own with globs (plugin_opt_rules) and remove " +
				rules_path(directory);
		return false;
	}
	rules = std::move(text);
	return true;
}

bool write_rules(const std::string &directory, const std::string &rules, std::string &error)
{
	return write_file(rules_path(directory), rules, store_mode::open_to_readers, error);
}

bool prepare_rules(const std::string &directory, const revocation_list &revoked, const stored_node *made,
		std::string &rules, std::string &error)
{
	rules.clear();
	return !file_exists(rules_path(directory)) || make_rules(directory, revoked, made, rules, error);
}

bool refresh_rules(const std::string &directory, const std::string &rules, std::ostream &out, std::string &error)
{
	if (rules.empty())
		return true;
	if (!write_rules(directory, rules, error))
		return false;
	out << "The broker's rules are written anew: " << rules_path(directory)
		<< " (a running broker reads them within seconds)\n";
	return true;
}

std::string cut_short_text(const identity &made, int start_days, int days)
{
	const int missing = days_cut_off(made.certificate.get(), start_days, days);
	if (missing < 1)
		return "";
	return "Its certificate ends with the CA, on " + describe_certificate(made.certificate.get()).not_after + ": " +
			std::to_string(missing) + (missing == 1 ? " day" : " days") + " before the end asked for.\n";
}

std::string stay_good_text(const std::string &directory, const std::string &name)
{
	return "The certificates from before stay good until they end or are revoked; once the new one is in use: "
		   "quillet-pki --dir " +
			directory + " revoke " + name + " --old\n";
}

std::string replaced_text(
		const std::string &directory, const std::string &name, const identity &ca, const revocation_list &revoked)
{
	identity held;
	std::string unreadable;
	if (!load_certificate(directory + "/" + name + "/cert.pem", held, unreadable) ||
			X509_verify(held.certificate.get(), ca.key.get()) != 1 || is_revoked(revoked, held.certificate.get()) ||
			describe_certificate(held.certificate.get()).expired)
		return "";
	return stay_good_text(directory, name);
}

bool refuse_overwriting(const std::string &path, bool force, const std::string &loss, std::string &error)
{
	if (force || !file_exists(path))
		return true;
	error = path + " exists already; --force replaces it, and then " + loss;
	return false;
}

bool refuse_overwriting_identity(const std::string &folder, bool force, const std::string &loss, std::string &error)
{
	return refuse_overwriting(folder + "/cert.pem", force, loss, error) &&
			refuse_overwriting(folder + "/private.pem", force, loss, error);
}

std::string bridge_side_of(const std::string &directory, const std::string &name)
{
	for (const stored_node &node : list_nodes(directory)) {
		if (node.role == "bridge" && std::ranges::find(node.units, name) != node.units.end())
			return "behind the bridge \"" + node.name + "\"";
		if (node.role == "uplink" && std::ranges::find(node.peers, name) != node.peers.end())
			return "at the far end of the uplink \"" + node.name + "\"";
	}
	return "";
}
