// What the server's engine and its services share.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "uds_server.h"

// Negative response codes (ISO 14229-1, annex A). NRC_NONE stands for a positive answer.
enum uds_nrc : uint8_t {
	NRC_NONE = 0x00,
	NRC_SERVICE_NOT_SUPPORTED = 0x11,
	NRC_SUB_FUNCTION_NOT_SUPPORTED = 0x12,
	NRC_INCORRECT_LENGTH = 0x13,
	NRC_RESPONSE_TOO_LONG = 0x14,
	NRC_BUSY_REPEAT_REQUEST = 0x21,
	NRC_REQUEST_SEQUENCE_ERROR = 0x24,
	NRC_REQUEST_OUT_OF_RANGE = 0x31,
	NRC_SECURITY_ACCESS_DENIED = 0x33,
	NRC_INVALID_KEY = 0x35,
	NRC_EXCEEDED_NUMBER_OF_ATTEMPTS = 0x36,
	NRC_REQUIRED_TIME_DELAY_NOT_EXPIRED = 0x37,
	NRC_RESPONSE_PENDING = 0x78,
	NRC_SUB_FUNCTION_NOT_SUPPORTED_IN_SESSION = 0x7E,
	NRC_SERVICE_NOT_SUPPORTED_IN_SESSION = 0x7F,
};

constexpr uint32_t default_session = 1;

struct security_state {
	bool seed_is_out = false; // a seed was given and no key has come for it
	uint32_t seed = 0;
	uint32_t wrong_keys = 0;
	int64_t blocked_until_us = 0;
};

enum routine_state : uint8_t {
	ROUTINE_NEVER_STARTED,
	ROUTINE_STARTED,
	ROUTINE_STOPPED,
};

// The request being worked on, until its final answer has been taken.
struct uds_work {
	bool under_way = false;
	uint8_t sid = 0;
	int64_t next_us = 0; // when the next answer is due
	int64_t interval_us = 0;
	uint32_t pending_left = 0;
	bool endless = false;
	std::vector<uint8_t> final_answer = {};
	bool resets = false; // the ECU resets once the final answer is out
};

struct uds_server {
	const ecu_description *ecu;
	uds_key_function key_of;
	uds_seed_function new_seed;

	uint32_t session = default_session;
	uint32_t unlocked = 0;         // the security level that is unlocked; 0: none
	int64_t s3_end_us = uds_never; // when the session falls back to the default one
	int64_t silent_until_us = 0;   // the ECU is starting up after a reset
	bool reset_asked = false;      // set by ECUReset while it is served
	uds_work work = {};
	std::deque<std::vector<uint8_t>> beside = {}; // answers given beside the work; due at once

	// One element per element of the description's list of the same name.
	std::vector<std::vector<uint8_t>> values = {};
	std::vector<security_state> security = {};
	std::vector<routine_state> routines = {};
	std::vector<uint32_t> override_hits = {};

	fault_memory faults = {}; // as described, less what has been cleared
};

// One request as a service sees it; positive takes the bytes of a positive answer.
struct uds_request {
	uds_server *server;
	std::span<const uint8_t> bytes;
	int64_t now_us;
	std::vector<uint8_t> *positive;
};

inline uint8_t sub_function(const uds_request &request)
{
	return request.bytes[1] & 0x7F;
}

inline void append(std::vector<uint8_t> *bytes, std::span<const uint8_t> more)
{
	bytes->insert(bytes->end(), more.begin(), more.end());
}

// Carries the request out: the checks that all services share, then the service. Returns NRC_NONE when positive holds
// the answer.
uds_nrc uds_serve(const uds_request &request);

// Does this service have a sub-function, and so a suppressPosRspMsgIndicationBit?
bool uds_has_sub_function(uint8_t sid);

// Enters a session: what security access had opened is locked again.
void uds_enter_session(uds_server *server, uint32_t session);
