// What the program writes about requests and answers: the trace on standard output, for people, and the request log,
// which tests count. Each line is on its way when the call returns.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

#include "uds_server.h"

struct request_record {
	bool trace = false;
	FILE *log = nullptr; // owned; NULL without a request log
};

// Opens the request log for appending. Returns false with a text in error.
bool request_record_open(request_record *record, const std::string &path, std::string *error);
void request_record_close(request_record *record);

// A request that an ECU has received, whatever becomes of it.
void request_record_request(
		const request_record &record, const std::string &ecu, std::span<const uint8_t> pdu, uds_addressing addressing);
void request_record_answer(const request_record &record, const std::string &ecu, std::span<const uint8_t> pdu);
