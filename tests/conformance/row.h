// A row of the ISO-TP conformance table: settings, a script of what both sides do and see, and the outcome of each call
// of ours. A row is written once and played on the pure channel, over a CAN server and over a SocketCAN interface.
//
// "We" are the node under test; the tester on the other side of the bus is played by hand. Times in a script count from
// the step before: a frame that is put waits so long first, a frame or an outcome that is awaited comes so much later,
// neither earlier nor, but for the tolerance of what the row is played on, later.
// On a link a frame takes its time to everyone: a script waits where the next step is not an answer to it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "isotp_channel.h"

using bytes = std::vector<uint8_t>;

// How a call of ours ended: an isotp_result, or one of these.
enum call_outcome : int {
	OUTCOME_REFUSED = isotp_result_count, // nothing was put on the bus
	OUTCOME_NO_ANSWER,                    // the time-out of a receive
	OUTCOME_FAILED,                       // as above or a result: all that the C entry points tell
	OUTCOME_WROTE,                        // failed, and yet wrote something to the caller
};

enum step_kind : int {
	STEP_SEND,     // we begin to send a PDU
	STEP_RECEIVE,  // we begin to receive
	STEP_SENT,     // our send ends
	STEP_RECEIVED, // our receive ends
	STEP_PUT,      // the tester puts a frame on the bus
	STEP_SEE,      // the tester sees a frame of ours
	STEP_QUIET,    // the tester sees no frame of ours for so long
	STEP_STOP_BUS, // the bus takes no frame of ours from here on
	STEP_START_BUS,
};

// Whose identifier a frame carries that the tester puts.
enum put_as : int { AS_THEM, AS_OTHER_FORMAT, AS_STRANGER, AS_US };

struct step {
	step_kind kind;
	int64_t us;  // see above; for STEP_RECEIVE the time-out
	bytes data;  // a PDU, or a frame; one of ours is padded to 8 bytes when it is compared
	int outcome; // of STEP_SENT and STEP_RECEIVED
	put_as who;  // of STEP_PUT
};

struct script {
	std::vector<step> steps;

	script(step one) : steps{std::move(one)}
	{
	}

	script(std::initializer_list<script> parts)
	{
		for (const script &part : parts)
			steps.insert(steps.end(), part.steps.begin(), part.steps.end());
	}
};

enum row_scope : int {
	ROW_EVERYWHERE,
	ROW_EXACT, // times nearer to each other than a busy machine keeps: the pure channel, and links on virtual time
	ROW_PURE,  // needs a bus that can be stopped
};

struct row_settings {
	bool is_extended = false;   // 29-bit identifiers
	bool is_functional = false; // nothing is received
	uint8_t block_size = 0;
	uint8_t st_min = 0;
	uint8_t padding = 0xCC;
	uint32_t our_id = 0;   // 0: one that no other row has
	uint32_t their_id = 0; // the same
	row_scope scope = ROW_EVERYWHERE;
};

struct row {
	std::string name;
	row_settings settings;
	script steps;
};

// The whole table.
const std::vector<row> &conformance_rows();

// The tables that it is made of.
std::vector<row> rows_of_sending();
std::vector<row> rows_of_flow_status();
std::vector<row> rows_of_receiving();
std::vector<row> rows_of_malformed_frames();
std::vector<row> rows_of_sequence();
std::vector<row> rows_of_timers();
std::vector<row> rows_of_addressing();
std::vector<row> rows_of_both_directions();
std::vector<row> rows_of_losses();

// What scripts are written with.

constexpr int64_t ms = 1000;

// Bytes that show a frame that is lost, doubled or out of place: the period has no factor 7.
bytes pdu_of(size_t length);
bytes single(size_t length);                 // a single frame with pdu_of(length)
bytes first(size_t length);                  // its first frame
bytes consecutive(size_t length, int index); // its consecutive frames, from 1
int consecutive_count(size_t length);

const bytes go_on = {0x30, 0, 0};
const bytes wait_more = {0x31, 0, 0};
const bytes overflow = {0x32, 0, 0};
bytes flow(uint8_t block_size, uint8_t st_min = 0);

step send(size_t length);
step receive(int64_t timeout_ms = 1000);
step sent(int64_t us = 0);
step send_fails(int outcome, int64_t us = 0);
step received(size_t length, int64_t us = 0);
step received_bytes(bytes pdu);
step receive_fails(int outcome, int64_t us = 0);
step put(bytes frame, int64_t us = 0, put_as who = AS_THEM);
step see(bytes frame, int64_t us = 0);
step quiet(int64_t us);
step stop_bus();
step start_bus();

// The consecutive frames from .. to of a PDU: the first of them at once, each other one gap_us after the one before.
script see_consecutive(size_t length, int from, int to, int64_t gap_us = 0);
script put_consecutive(size_t length, int from, int to, int64_t gap_us = 0);

// A whole exchange that goes well. Ours, with the tester's block size and STmin; theirs, with our settings.
script whole_send(size_t length, uint8_t block_size = 0, uint8_t st_min = 0);
script whole_receive(size_t length, const row_settings &settings = {});
