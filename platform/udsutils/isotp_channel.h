// isotp_channel: ISO-TP (ISO 15765-2) between two nodes as a pure state machine, normal addressing, classic CAN.
// Frames and clock readings go in; frames, PDUs, results and the next deadline come out. It has no socket, no clock
// and no thread: whoever drives it holds a lock around it if several threads do.
//
// The driver's loop, for a tester and for an ECU alike:
//	1. each frame from the bus goes to isotp_take_frame; on ISOTP_EVENT_PDU the PDU is copied from isotp_pdu at once;
//	2. isotp_step tells the time, which may end a send or a reception that waited too long;
//	3. while isotp_next_frame gives a frame, put it on the bus and say isotp_frame_sent; a frame that the bus does not
//	   take now is asked for again later;
//	4. wait for a frame or for isotp_deadline, whichever comes first.
//
// A send and a reception may run at the same time. Clock readings are microseconds of one monotonic clock, 64 bit
// also on a 32-bit machine.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bus_frame.h"

constexpr size_t isotp_pdu_max = 8191;
constexpr int64_t isotp_never = INT64_MAX;
constexpr int64_t isotp_timeout_us = 1000000; // N_As, N_Ar, N_Bs and N_Cr
constexpr unsigned isotp_waits_max = 16;      // flow controls of status WAIT in a row that a send puts up with
constexpr uint8_t isotp_default_padding = 0xCC;

struct isotp_settings {
	uint32_t tx_id;          // identifier of the frames we send; above 7FF it is a 29-bit one
	uint32_t rx_id;          // identifier of the frames we take; 0 takes none
	uint8_t block_size;      // announced in our flow controls; 0 = no limit
	uint8_t st_min;          // announced in our flow controls, as coded by ISO 15765-2
	uint8_t padding;         // fills our frames to 8 bytes
	bool single_frames_only; // functional addressing: segmented PDUs are neither sent nor taken
	uint32_t receive_limit;  // a longer PDU is answered with flow control overflow; at most isotp_pdu_max
};

// Results, as the standard names them.
enum isotp_result : int {
	ISOTP_OK,
	ISOTP_TIMEOUT_A,       // a frame of ours did not get onto the bus
	ISOTP_TIMEOUT_BS,      // no flow control came
	ISOTP_TIMEOUT_CR,      // no consecutive frame came
	ISOTP_WRONG_SN,        // a consecutive frame out of sequence
	ISOTP_INVALID_FS,      // a flow control with a reserved status
	ISOTP_UNEXPECTED_PDU,  // a new message began inside the one being received
	ISOTP_WFT_OVERRUN,     // too many flow controls of status WAIT
	ISOTP_BUFFER_OVERFLOW, // the receiver has no room for the message
	ISOTP_ERROR,           // anything else
	isotp_result_count
};

// What a frame or a moment in time did to the reception.
enum isotp_event : int {
	ISOTP_EVENT_NONE,
	ISOTP_EVENT_BEGUN,  // a first frame: a segmented reception is under way
	ISOTP_EVENT_PDU,    // a PDU is complete, see isotp_pdu
	ISOTP_EVENT_FAILED, // the reception has ended without a PDU, see isotp_reception_result
};

enum isotp_send_state : int { ISOTP_SEND_IDLE, ISOTP_SEND_UNDER_WAY, ISOTP_SEND_DONE, ISOTP_SEND_FAILED };

// Which of the two outgoing frames isotp_next_frame gave.
enum isotp_out : int { ISOTP_OUT_NONE, ISOTP_OUT_FLOW_CONTROL, ISOTP_OUT_DATA };

struct isotp_channel;

// A tester's settings: block size 0, STmin 0, padding CC, limit 8191. With an rx_id of 0 single frames only.
isotp_settings isotp_default_settings(uint32_t tx_id, uint32_t rx_id);

// NULL without memory or for settings that cannot be used (an identifier above 1FFFFFFF, a limit above 8191).
isotp_channel *isotp_channel_new(const isotp_settings *settings);
void isotp_channel_free(isotp_channel *channel);

// Begins to send a PDU, which is copied. -1 for an empty or too long one, or while a send is under way.
int isotp_send(isotp_channel *channel, const uint8_t *pdu, size_t length, int64_t now_us);
// Ends a send under way as failed with ISOTP_ERROR.
void isotp_abort_send(isotp_channel *channel);
isotp_send_state isotp_sending(const isotp_channel *channel);
// Why the last send failed; ISOTP_OK otherwise.
isotp_result isotp_send_result(const isotp_channel *channel);

// A frame from the bus; one with another identifier is passed over.
isotp_event isotp_take_frame(isotp_channel *channel, const bus_frame *frame, int64_t now_us);
// The PDU of the ISOTP_EVENT_PDU just told; borrowed until the next call of isotp_take_frame.
const uint8_t *isotp_pdu(const isotp_channel *channel, size_t *length);
// Is a segmented reception under way?
bool isotp_receiving(const isotp_channel *channel);
// Forgets a reception under way and the flow control that it would send.
void isotp_drop_reception(isotp_channel *channel);
// Why the last reception that ended without a PDU did; ISOTP_UNEXPECTED_PDU also when the frame that ended it has begun
// or completed another one.
isotp_result isotp_reception_result(const isotp_channel *channel);

// The time has come to this: ends what has waited too long. ISOTP_EVENT_FAILED or ISOTP_EVENT_NONE.
isotp_event isotp_step(isotp_channel *channel, int64_t now_us);
// The frame that is due now, if any. It is given again until isotp_frame_sent; N_As runs from the first time that it is
// asked for, whatever goes before it.
isotp_out isotp_next_frame(isotp_channel *channel, bus_frame *frame, int64_t now_us);
// The frame just given is on the bus.
void isotp_frame_sent(isotp_channel *channel, isotp_out which, int64_t now_us);
// When isotp_step or isotp_next_frame has something to do again, without a frame coming in before; isotp_never if not.
int64_t isotp_deadline(const isotp_channel *channel);

// "N_TIMEOUT_BS" and the like, for messages.
const char *isotp_result_name(isotp_result result);
// STmin as coded by ISO 15765-2, 9.6.5.4, in microseconds; a reserved value counts as 127 ms.
int64_t isotp_st_min_us(uint8_t st_min);
