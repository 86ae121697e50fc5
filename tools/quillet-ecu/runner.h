// runner: serves the ECUs of a bench on one CAN bus, in the calling thread. One link takes every frame; each ECU has an
// ISO-TP channel for its physical identifiers and one for each functional identifier, and a UDS server behind them.
#pragma once

#include <string>
#include <vector>

#include "description.h"
#include "request_record.h"
#include "uds_server.h"

struct runner_settings {
	const bench_description *bench;              // borrowed
	std::vector<uds_key_function> key_functions; // one per ECU; NULL without security levels
	std::string bus;
	request_record record;
	int stop_descriptor; // readable when the runner is to end
};

// Serves until the stop descriptor is readable. Says "serving N ECUs on <bus>" on standard output whenever it begins
// to. When the bus is not there or goes away, says so on standard error and tries again with growing pauses, for ever.
// Returns false without memory.
bool runner_run(const runner_settings &settings);
