// An ECU's fault memory: what the reports of ReadDTCInformation tell. It serves as the description of a memory and as
// the state of one; clearing empties records and never takes one away, because a record that is known and empty is
// answered differently from one that is not known.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct dtc_parameter {
	uint32_t id = 0; // a data identifier
	std::vector<uint8_t> value = {};
};

// A snapshot record, or a stored data record. Empty: nothing is stored.
struct dtc_snapshot {
	uint32_t record = 0;
	std::vector<dtc_parameter> data = {};
};

struct dtc_extended_data {
	uint32_t record = 0;
	std::vector<uint8_t> value = {}; // empty: nothing is stored
};

struct dtc_description {
	uint32_t id = 0; // three bytes
	uint32_t status = 0;
	uint32_t severity = 0;
	uint32_t functional_unit = 0;
	uint32_t fault_detection_counter = 0; // two's complement
	bool emission = false;                // emissions-related, an OBD code
	bool permanent = false;               // held in the permanent memory
	std::vector<dtc_snapshot> snapshots = {};
	std::vector<dtc_snapshot> stored_data = {}; // their record numbers are the ECU's, not the code's
	std::vector<dtc_extended_data> extended_data = {};
};

struct user_memory_description {
	uint32_t selection = 0;
	std::vector<dtc_description> dtcs = {};
};

// The codes of each memory are in the order in which they were detected.
struct fault_memory {
	bool present = false; // without one the services are not offered
	uint32_t status_availability = 0xFF;
	uint32_t format = 0x01;             // the DTCFormatIdentifier of ISO 14229-1
	std::vector<uint32_t> reports = {}; // the sub-functions offered; empty: all that there are
	std::vector<dtc_description> dtcs = {};
	std::vector<dtc_description> mirror = {};
	std::vector<user_memory_description> user_memories = {};
};
