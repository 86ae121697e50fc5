// Makes the JSON text of a request for a version from readable arguments.
#pragma once

#include <string>
#include <vector>

#include "request_target.h"

struct version_options {
	transport_options transport;        // with a broadcast frame, its ecu may be empty
	std::vector<std::string> uds;       // whole UDS requests in hexadecimal, as in 22F195
	std::string j1939;                  // in place of these, the identifier of a broadcast frame in hexadecimal
	std::vector<std::string> signals;   // of the frame: "NAME:START:LENGTH[:FACTOR[:OFFSET]]", decimal
	std::string frame_timeout = "1000"; // milliseconds
};

// On failure false, with the cause in error.
bool build_version_request(
		const version_options &options, const std::string &reply_id, std::string &request, std::string &error);
