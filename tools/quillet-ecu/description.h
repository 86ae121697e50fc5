// The description of a bench: the virtual ECUs, as the JSON file tells them. docs/virtual-ecu.md names every member.
// Plain records, complete and checked once they have been read: what they refer to exists, what must differ differs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fault_memory.h"

// Where something is allowed. No session: in every session. Security 0: without security access, else the requestSeed
// sub-function of the level that must be unlocked.
struct access_rule {
	std::vector<uint32_t> sessions = {};
	uint32_t security = 0;
};

struct session_description {
	uint32_t id = 0;
	std::vector<uint32_t> from = {}; // sessions that it may be entered from; empty: from every one
	uint32_t p2_ms = 0;
	uint32_t p2_star_ms = 0;
};

struct service_description {
	uint32_t sid = 0;
	access_rule access;
};

struct security_description {
	uint32_t level = 0; // the requestSeed sub-function, odd
	std::vector<uint32_t> sessions = {};
	std::string script = {}; // for the key plug-in
	uint32_t key_level = 0;  // for the key plug-in
	bool seed_is_fixed = false;
	uint32_t seed = 0;
	uint32_t attempts = 0; // wrong keys until the delay starts
	uint32_t delay_ms = 0;
};

struct identifier_description {
	uint32_t id = 0;
	std::vector<uint8_t> value = {};
	access_rule read;
	bool writable = false;
	access_rule write;
};

// The sub-functions of RoutineControl: 1 start, 2 stop, 3 results. Slot 0 is not used.
constexpr size_t routine_action_slots = 4;

struct routine_action {
	bool offered = false;
	uint32_t option_least = 0; // bytes of the option record
	uint32_t option_most = 0;
	std::vector<uint8_t> answer = {}; // what follows the routine identifier
	bool any_time = false;            // stop and results: also when the routine has not been started
};

struct routine_description {
	uint32_t id = 0;
	access_rule access;
	routine_action actions[routine_action_slots];
};

enum override_kind {
	OVERRIDE_NORMAL, // the request is carried out; only times are changed
	OVERRIDE_NEGATIVE,
	OVERRIDE_ANSWER,
	OVERRIDE_SILENT,
};

// What is done differently for requests that begin with these bytes.
struct override_description {
	std::vector<uint8_t> request = {};
	bool whole = false; // the request must be these bytes and no more
	override_kind kind = OVERRIDE_NORMAL;
	uint32_t nrc = 0;
	std::vector<uint8_t> answer = {};
	uint32_t times = 0;    // for the first so many matching requests only; 0: for all
	uint32_t delay_ms = 0; // before the first answer
	bool endless = false;
	uint32_t pending_count = 0; // 0x78 answers before the final one
	uint32_t pending_interval_ms = 0;
};

// A frame that the ECU sends by itself, again and again, from delay_ms after it has come onto the bus.
struct broadcast_description {
	uint32_t id = 0;
	std::vector<uint8_t> data = {};
	uint32_t period_ms = 0;
	uint32_t delay_ms = 0;
};

struct ecu_description {
	std::string name = {};
	uint32_t request_id = 0; // CAN identifiers: 11 bits up to 7FF, 29 bits above
	uint32_t response_id = 0;
	std::vector<uint32_t> functional_ids = {};
	std::string key_plugin_dir = {}; // empty: the bench's
	uint32_t block_size = 0;
	uint32_t st_min = 0;
	uint32_t s3_ms = 0;
	uint32_t reset_ms = 0;                          // silence after a reset
	std::vector<session_description> sessions = {}; // the default session, 01, is always the first
	std::vector<uint32_t> resets = {};              // sub-functions of ECUReset
	std::vector<service_description> services = {}; // restrictions only
	std::vector<security_description> security = {};
	std::vector<identifier_description> identifiers = {};
	std::vector<routine_description> routines = {};
	fault_memory faults = {};
	std::vector<broadcast_description> broadcasts = {};
	std::vector<override_description> overrides = {}; // the first that matches counts
};

struct bench_description {
	std::string bus = "can0";
	std::string key_plugin_dir = {}; // empty: none given
	std::vector<ecu_description> ecus = {};
};

// The longest UDS message that the transport carries.
constexpr size_t longest_pdu = 8191;

// Reads a description. A directory that it names is relative to the file's own. Returns false with one line in error:
// the file, the JSON path of what is wrong, and what is expected there.
bool description_load(const std::string &path, bench_description *bench, std::string *error);

// The same from a text; name stands for the file in errors, and directories stay as they are.
bool description_parse(const std::string &text, const std::string &name, bench_description *bench, std::string *error);
