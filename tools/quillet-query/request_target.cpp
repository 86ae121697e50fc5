#include "request_target.h"

#include <cstdio>
#include <vector>

#include "description.h"
#include "hex_text.h"

namespace
{

constexpr const char *all_ecus = "-1";
// What the agent keeps of an interface's name, and of a list of ECUs.
constexpr size_t longest_interface = 127;
constexpr size_t most_ecus = 256;

bool check_settings(const transport_options &options, std::string &error)
{
	uint8_t byte = 0;
	if (!parse_hex_byte(options.st_min, byte) || !parse_hex_byte(options.bsize, byte))
		error = "--st-min and --bsize are bytes in hexadecimal, as in 0 or 1E";
	else if (options.interface_name.size() > longest_interface)
		error = "--interface has at most " + std::to_string(longest_interface) + " characters";
	else if (options.ecu.empty() == options.bench.empty())
		error = "give either --ecu, for one ECU, or --bench, for all that a bench description has";
	else
		return true;
	return false;
}

json_pointer transport_object(const transport_options &options, const std::string &interface_name,
		const std::string &request_id, const std::string &response_id)
{
	json_pointer can(json_object_new_object());
	add_text(can.get(), "ifname", interface_name);
	add_text(can.get(), "phy-req-id", request_id);
	add_text(can.get(), "phy-resp-id", response_id);
	add_text(can.get(), "st-min", options.st_min);
	add_text(can.get(), "bsize", options.bsize);
	return can;
}

bool one_ecu(const transport_options &options, request_target &target, std::string &error)
{
	std::vector<std::string> ids = split(options.ecu, ':');
	if (ids.size() != 2 || !is_can_identifier(ids[0]) || !is_can_identifier(ids[1])) {
		error = "--ecu \"" + options.ecu + "\" is not REQUEST-ID:RESPONSE-ID in hexadecimal, as in 7E0:7E8";
		return false;
	}
	if (options.interface_name.empty()) {
		error = "--interface is empty; name the CAN interface, as in can0";
		return false;
	}
	target.address = ids[0];
	target.can = transport_object(options, options.interface_name, ids[0], ids[1]);
	return true;
}

std::string identifier_text(uint32_t identifier)
{
	char text[9];
	snprintf(text, sizeof(text), "%X", identifier);
	return text;
}

bool whole_bench(const transport_options &options, request_target &target, std::string &error)
{
	bench_description bench;
	if (!description_load(options.bench, &bench, &error))
		return false;
	if (bench.ecus.size() > most_ecus) {
		error = options.bench + ": a request can name " + std::to_string(most_ecus) + " ECUs, it has " +
				std::to_string(bench.ecus.size());
		return false;
	}
	target.address = all_ecus;
	target.can.reset(json_object_new_array());
	for (const ecu_description &ecu : bench.ecus) {
		if (ecu.functional_ids.empty()) {
			error = options.bench + ": " + ecu.name +
					" has no functional identifier, so it cannot be asked with others";
			return false;
		}
		const std::string request_id = identifier_text(ecu.request_id);
		json_pointer can =
				transport_object(options, options.interface_name.empty() ? bench.bus : options.interface_name,
						request_id, identifier_text(ecu.response_id));
		add_text(can.get(), "func-addr", identifier_text(ecu.functional_ids[0]));
		json_object_array_add(target.can.get(), can.release());
		target.names[request_id] = ecu.name;
	}
	return true;
}

} // namespace

bool find_target(const transport_options &options, request_target &target, std::string &error)
{
	if (!check_settings(options, error))
		return false;
	request_target fresh;
	if (!(options.bench.empty() ? one_ecu(options, fresh, error) : whole_bench(options, fresh, error)))
		return false;
	target = std::move(fresh);
	return true;
}

std::string request_text(const std::string &reply_id, request_target target, const char *kind, json_pointer work)
{
	json_object *body = json_object_new_object();
	add_text(body, "targetAddress", target.address);
	add_text(body, "mode", "CAN");
	json_object_object_add(body, "can", target.can.release());
	json_object_object_add(body, kind, work.release());

	json_pointer document(json_object_new_object());
	add_text(document.get(), "reply-id", reply_id);
	add_text(document.get(), "type", "movra.quillet-query");
	json_object_object_add(document.get(), "body", body);
	return plain_json(document.get());
}
