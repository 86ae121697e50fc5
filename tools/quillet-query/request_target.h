// The ECUs that a request is for: one that arguments name, or all of a bench description.
#pragma once

#include <map>
#include <string>

#include "json_helpers.h"

struct transport_options {
	std::string ecu;            // "REQUEST-ID:RESPONSE-ID" in hexadecimal, as in 7E0:7E8
	std::string bench;          // in place of ecu, the description of a bench, for all of its ECUs
	std::string interface_name; // CAN interface, as the agent's machine knows it; empty: the bench's
	std::string st_min = "0";   // ISO-TP separation time, hexadecimal
	std::string bsize = "8";    // ISO-TP block size, hexadecimal
};

// By the text of the request identifier, the ECU's name.
using ecu_names = std::map<std::string, std::string>;

struct request_target {
	std::string address; // the value of "targetAddress"
	json_pointer can;    // the value of "can"
	ecu_names names;     // of the bench's ECUs
};

// On failure false, with the cause in error.
bool find_target(const transport_options &options, request_target &target, std::string &error);

// A whole request: the target's part of the body, and one member for the work.
std::string request_text(const std::string &reply_id, request_target target, const char *kind, json_pointer work);
