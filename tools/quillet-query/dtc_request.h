// Makes the JSON text of a request for DTCs (ReadDTCInformation) from readable arguments.
#pragma once

#include <string>

#include "request_target.h"

// As the command line has them; an empty text is an argument that was not given.
struct dtc_options {
	transport_options transport;
	std::string report;      // short name
	std::string status_mask; // names, "all", or a byte in hexadecimal
	std::string severity;    // the same
	std::string dtc;         // P0123-45, or six hexadecimal digits
	std::string record;      // a byte in hexadecimal, or "all"
	std::string memory;      // a byte in hexadecimal
};

// On failure false, with the cause in error. names gets the names of a bench's ECUs.
bool build_dtc_request(const dtc_options &options, const std::string &reply_id, std::string &request, ecu_names &names,
		std::string &error);
