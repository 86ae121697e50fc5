// uds_server: one ECU's UDS server (ISO 14229-1) as a pure state machine. Requests and clock readings go in; answers
// come out when they are due. It has no socket, no clock and no thread.
//
// The runner's loop: hand each request over; while uds_server_take_answer gives one, send it; wait for a request or for
// uds_server_deadline. Clock readings are microseconds of one monotonic clock.
//
// One request is worked on at a time. While its answer is awaited (a delay, a chain of response-pending answers), a
// TesterPresent is served beside it, an endless chain is given up for any other request, and a request during anything
// else is answered busyRepeatRequest (0x21) and not carried out.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "description.h"

constexpr int64_t uds_never = INT64_MAX;

enum uds_addressing {
	UDS_PHYSICAL,
	UDS_FUNCTIONAL,
};

using uds_key_function = uint32_t (*)(uint32_t seed, const char *script, uint8_t level);
using uds_seed_function = uint32_t (*)();

struct uds_server;

// The description is borrowed until the server is freed. key_of may be NULL for an ECU without security levels;
// new_seed gives the seeds that the description does not fix.
uds_server *uds_server_new(const ecu_description *ecu, uds_key_function key_of, uds_seed_function new_seed);
void uds_server_free(uds_server *server); // NULL is accepted

// A request has come in; an empty one is passed over.
void uds_server_request(
		uds_server *server, std::span<const uint8_t> request, uds_addressing addressing, int64_t now_us);

// The next answer that is due, if any: returns whether answer was written.
bool uds_server_take_answer(uds_server *server, int64_t now_us, std::vector<uint8_t> *answer);

// When the next answer is due; uds_never if none is to come.
int64_t uds_server_deadline(const uds_server *server);
