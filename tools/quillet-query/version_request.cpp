#include "version_request.h"

#include <cstdlib>

#include "hex_text.h"

namespace
{

// What the agent forms a request in.
constexpr size_t longest_request = 2048;
constexpr unsigned long long longest_signal = 32; // bits
constexpr unsigned long long frame_bits = 64;
// The agent reads factors and times into 32 bits, and offsets into 32 bits with a sign.
constexpr unsigned long long most_unsigned = 0xFFFFFFFF;
constexpr unsigned long long most_signed = 0x7FFFFFFF;

bool parse_number(const std::string &text, unsigned long long most, unsigned long long &number)
{
	number = 0;
	if (!is_decimal(text) || text.size() > 10)
		return false;
	number = strtoull(text.c_str(), nullptr, 10);
	return number <= most;
}

// Name, start, length, factor and offset of a signal, with the defaults of those left out.
using signal_fields = std::vector<std::string>;

bool are_numbers(const signal_fields &fields)
{
	constexpr unsigned long long most[] = {0, most_unsigned, most_unsigned, most_unsigned, most_signed};
	unsigned long long unused = 0;
	for (size_t index = 1; index < fields.size(); index++) {
		if (!parse_number(fields[index], most[index], unused))
			return false;
	}
	return true;
}

bool parse_signal(const std::string &text, signal_fields &fields, std::string &error)
{
	fields = split(text, ':');
	if (fields.size() == 3)
		fields.push_back("1");
	if (fields.size() == 4)
		fields.push_back("0");
	if (fields.size() != 5 || fields[0].empty() || !are_numbers(fields)) {
		error = "--signal \"" + text + "\" is not NAME:START:LENGTH[:FACTOR[:OFFSET]] with whole decimal numbers, " +
				"as in major:0:8:1:0";
		return false;
	}
	unsigned long long start = 0;
	unsigned long long length = 0;
	if (!parse_number(fields[2], longest_signal, length) || length == 0 ||
			!parse_number(fields[1], frame_bits - length, start)) {
		error = "--signal \"" + text + "\": a signal has 1 to 32 bits, within the 64 bits of the frame";
		return false;
	}
	return true;
}

json_pointer uds_list(const version_options &options, std::string &error)
{
	json_pointer list(json_object_new_array());
	for (const std::string &text : options.uds) {
		if (!is_hex(text) || text.size() % 2 != 0 || text.size() / 2 > longest_request) {
			error = "--uds \"" + text + "\" is not a request of 1 to " + std::to_string(longest_request) +
					" whole bytes in hexadecimal, as in 22F195";
			return nullptr;
		}
		json_object_array_add(list.get(), json_object_new_string(text.c_str()));
	}
	return list;
}

json_pointer signal_list(const version_options &options, std::string &error)
{
	json_pointer list(json_object_new_array());
	for (const std::string &text : options.signals) {
		signal_fields fields;
		if (!parse_signal(text, fields, error))
			return nullptr;
		json_object *signal = json_object_new_object();
		add_text(signal, "name", fields[0]);
		add_text(signal, "start_bit", fields[1]);
		add_text(signal, "bitlength", fields[2]);
		add_text(signal, "factor", fields[3]);
		add_text(signal, "offset", fields[4]);
		json_object_array_add(list.get(), signal);
	}
	return list;
}

json_pointer j1939_object(const version_options &options, std::string &error)
{
	json_pointer list = signal_list(options, error);
	if (list == nullptr)
		return nullptr;
	json_pointer frame(json_object_new_object());
	add_text(frame.get(), "ifname", options.transport.interface_name);
	add_text(frame.get(), "id", options.j1939);
	add_text(frame.get(), "timeout", options.frame_timeout);
	json_object_object_add(frame.get(), "signal", list.release());
	return frame;
}

bool check_kind(const version_options &options, std::string &error)
{
	unsigned long long unused = 0;
	if (options.uds.empty() == options.j1939.empty())
		error = "give either --uds, a request to the ECU, or --j1939, the identifier of a broadcast frame";
	else if (!options.j1939.empty() && !is_can_identifier(options.j1939))
		error = "--j1939 \"" + options.j1939 + "\" is not a CAN identifier in hexadecimal, as in 18FEDA00";
	else if (!options.j1939.empty() && options.signals.empty())
		error = "--j1939 needs at least one --signal, as in --signal major:0:8:1:0";
	else if (options.j1939.empty() && !options.signals.empty())
		error = "--signal belongs to --j1939";
	else if (!parse_number(options.frame_timeout, most_unsigned, unused))
		error = "--frame-timeout \"" + options.frame_timeout + "\" is not a number of milliseconds, as in 1000";
	else if (options.j1939.empty() && options.transport.ecu.empty())
		error = "--uds needs --ecu, the ECU to ask, as in --ecu 7E0:7E8";
	else
		return true;
	return false;
}

} // namespace

bool build_version_request(
		const version_options &options, const std::string &reply_id, std::string &request, std::string &error)
{
	if (!check_kind(options, error))
		return false;
	transport_options transport = options.transport;
	// A request always names an ECU. One that reads a frame asks none, so the frame's own identifier does.
	if (transport.ecu.empty())
		transport.ecu = options.j1939 + ":" + options.j1939;
	request_target target;
	if (!find_target(transport, target, error))
		return false;
	const bool is_frame = !options.j1939.empty();
	json_pointer query = is_frame ? j1939_object(options, error) : uds_list(options, error);
	if (query == nullptr)
		return false;
	json_pointer version(json_object_new_object());
	json_object_object_add(version.get(), is_frame ? "j1939" : "uds", query.release());
	request = request_text(reply_id, std::move(target), "version", std::move(version));
	return true;
}
