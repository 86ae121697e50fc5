#include "request_builder.h"

#include <cerrno>
#include <cstdlib>

#include <sys/random.h>

#include "hex_text.h"
#include "json_helpers.h"

namespace
{

// What one command may carry: the agent forms it in 1024 bytes.
constexpr size_t longest_command = 1024;

bool parse_bytes(const std::vector<std::string> &parts, command_fields &fields)
{
	if (parts.size() > 3 || parts[0].size() != 2 || !is_hex(parts[0]))
		return false;
	fields.service = parts[0];
	for (size_t index = 1; index < parts.size(); index++) {
		const std::string &part = parts[index];
		if (!part.empty() && (!is_hex(part) || part.size() % 2 != 0))
			return false;
		bool is_subfunction = index == 1 && part.size() <= 2;
		if (index == 1 && !is_subfunction && parts.size() == 3)
			return false;
		(is_subfunction ? fields.subfn : fields.data) = part;
	}
	return (fields.service.size() + fields.subfn.size() + fields.data.size()) / 2 <= longest_command;
}

void add_filled(json_object *object, const char *key, const std::string &text)
{
	if (!text.empty())
		add_text(object, key, text);
}

bool build_commands(const routine_options &options, json_object *list, std::string &error)
{
	for (const std::string &text : options.commands) {
		command_fields fields;
		if (!parse_command(text, fields, error))
			return false;
		if (fields.service == "27" && options.security_location.empty()) {
			error = "the command \"" + text +
					"\" needs a key: name the folder of the key plug-in on the agent's machine " +
					"with --security-location";
			return false;
		}
		json_object *command = json_object_new_object();
		add_text(command, "service", fields.service);
		add_filled(command, "subfn", fields.subfn);
		add_filled(command, "data", fields.data);
		add_filled(command, "timer", fields.timer);
		json_object_array_add(list, command);
	}
	return true;
}

bool check_commands(const routine_options &options, std::string &error)
{
	uint8_t level = 0;
	if (!options.security_location.empty() && !parse_hex_byte(options.security_level, level))
		error = "--security-level is a byte in hexadecimal, as in 1";
	else if (options.commands.empty())
		error = "a routine has at least one --command, as in --command 10:03";
	else
		return true;
	return false;
}

json_object *security_object(const routine_options &options)
{
	json_object *security = json_object_new_object();
	add_text(security, "level", options.security_level);
	add_text(security, "script", options.security_script);
	add_text(security, "location", options.security_location);
	return security;
}

} // namespace

bool parse_command(const std::string &text, command_fields &fields, std::string &error)
{
	command_fields fresh;
	std::vector<std::string> parts = split(text, ';');
	bool good = parts.size() <= 2 && parse_bytes(split(parts[0], ':'), fresh);
	if (good && parts.size() == 2) {
		good = parts[1].rfind("timer=", 0) == 0 && is_decimal(parts[1].substr(6));
		if (good)
			fresh.timer = parts[1].substr(6);
	}
	if (!good) {
		error = "the command \"" + text + "\" is not SID[:SUBFUNCTION][:DATA][;timer=SECONDS] with whole bytes in " +
				"hexadecimal, as in 10:03, 22:F190 or 31:01:FF00;timer=3";
		return false;
	}
	fields = fresh;
	return true;
}

bool build_routine_request(
		const routine_options &options, const std::string &reply_id, std::string &request, std::string &error)
{
	request_target target;
	if (!find_target(options.transport, target, error) || !check_commands(options, error))
		return false;
	json_pointer commands(json_object_new_array());
	if (!build_commands(options, commands.get(), error))
		return false;
	json_pointer routine(json_object_new_object());
	json_object_object_add(routine.get(), "commands", commands.release());
	if (!options.security_location.empty())
		json_object_object_add(routine.get(), "security_access", security_object(options));
	request = request_text(reply_id, std::move(target), "routine", std::move(routine));
	return true;
}

bool adopt_request(const std::string &text, const std::string &wanted_id, std::string &request, std::string &reply_id,
		std::string &error)
{
	std::unique_ptr<json_tokener, decltype(&json_tokener_free)> tokener(json_tokener_new(), json_tokener_free);
	json_pointer document(json_tokener_parse_ex(tokener.get(), text.c_str(), -1));
	json_tokener_error failure = json_tokener_get_error(tokener.get());
	if (failure != json_tokener_success) {
		error = std::string("it is not JSON: ") + json_tokener_error_desc(failure) + " at byte " +
				std::to_string(json_tokener_get_parse_end(tokener.get()));
		return false;
	}
	if (!json_object_is_type(document.get(), json_type_object)) {
		error = "it is JSON, but not an object";
		return false;
	}
	const size_t more = text.find_first_not_of(" \t\r\n", json_tokener_get_parse_end(tokener.get()));
	if (more != std::string::npos) {
		error = "one request at a time can be sent, but more follows the first JSON value, at byte " +
				std::to_string(more);
		return false;
	}
	json_object *own = nullptr;
	if (wanted_id.empty() && json_object_object_get_ex(document.get(), "reply-id", &own) &&
			json_object_is_type(own, json_type_string)) {
		reply_id = json_object_get_string(own);
	} else {
		reply_id = wanted_id.empty() ? fresh_reply_id() : wanted_id;
		add_text(document.get(), "reply-id", reply_id);
	}
	request = plain_json(document.get());
	return true;
}

std::string fresh_reply_id()
{
	unsigned char bytes[12];
	size_t filled = 0;
	while (filled < sizeof(bytes)) {
		ssize_t count = getrandom(bytes + filled, sizeof(bytes) - filled, 0);
		if (count < 0 && errno != EINTR)
			abort(); // Linux has getrandom since 3.17; without it no two ids could be told apart
		filled += count > 0 ? static_cast<size_t>(count) : 0;
	}
	std::string id = "query-";
	for (unsigned char byte : bytes) {
		id += "0123456789abcdef"[byte >> 4];
		id += "0123456789abcdef"[byte & 0xF];
	}
	return id;
}
