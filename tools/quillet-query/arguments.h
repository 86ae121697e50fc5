// The command line of quillet-query.
#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "dtc_request.h"
#include "request_builder.h"
#include "version_request.h"

enum class request_kind { file, routine, dtc, version };

struct query_options {
	std::string agent;
	std::string certificates;
	std::string broker = "localhost:9133";
	std::string file;
	std::string reply_id;
	double timeout_s = 10;
	bool pretty = false;
	bool decode = false;
	bool show_request = false;
	bool verbose = false;
	request_kind kind = request_kind::file; // which of the following the request is made from
	routine_options routine;
	dtc_options dtc;
	version_options version;
};

// Parsing the command line fills options, which has to outlive the application.
void add_arguments(CLI::App &app, query_options &options);
