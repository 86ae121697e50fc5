// Makes the JSON text of a request: a routine's from readable arguments, or one from a text that
// the user wrote.
#pragma once

#include <string>
#include <vector>

#include "request_target.h"

struct routine_options {
	transport_options transport;
	std::vector<std::string> commands; // "SID[:SUBFUNCTION][:DATA][;timer=SECONDS]", bytes in hexadecimal
	std::string security_location;     // folder of the key plug-in on the agent's machine; empty for none
	std::string security_level = "1";  // hexadecimal
	std::string security_script;
};

struct command_fields {
	std::string service;
	std::string subfn;
	std::string data;
	std::string timer;
};

// Splits one command. After the service, a field of two digits is the sub-function and a longer one is data.
// On failure false, with the cause in error.
bool parse_command(const std::string &text, command_fields &fields, std::string &error);

// Makes a routine request. On failure false, with the cause in error.
bool build_routine_request(
		const routine_options &options, const std::string &reply_id, std::string &request, std::string &error);

// Takes a request as the user wrote it: one object in JSON. Its reply-id becomes wanted_id; when that is empty, the
// text's own stays, or a fresh one is put in. On failure false, with the cause in error.
bool adopt_request(const std::string &text, const std::string &wanted_id, std::string &request, std::string &reply_id,
		std::string &error);

// A reply-id that no earlier request had.
std::string fresh_reply_id();
