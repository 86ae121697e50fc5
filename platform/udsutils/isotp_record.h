// The channel's record and what its halves, isotp_send.cpp and isotp_receive.cpp, do for isotp_channel.cpp. The halves
// share nothing but the settings: a send and a reception run side by side.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "isotp_channel.h"

// Types of protocol control information: the high nibble of a frame's first byte.
enum pci_type : unsigned { PCI_SINGLE, PCI_FIRST, PCI_CONSECUTIVE, PCI_FLOW_CONTROL, pci_type_count };

// Flow status: the low nibble of a flow control's first byte.
enum flow_status : uint8_t { FLOW_CONTINUE, FLOW_WAIT, FLOW_OVERFLOW, flow_status_count };

// What a send under way does next.
enum send_phase : int { SENDS_SINGLE, SENDS_FIRST, AWAITS_FLOW_CONTROL, SENDS_CONSECUTIVE };

constexpr size_t frame_size = 8;
constexpr size_t single_max = 7; // bytes of a PDU in a single frame
constexpr size_t short_first_max = 4095;
constexpr size_t short_first_header = 2;
constexpr size_t long_first_header = 6;

struct isotp_channel {
	isotp_settings settings;

	isotp_send_state send_state;
	isotp_result send_result;
	send_phase phase;
	size_t tx_length;
	size_t tx_offset; // bytes on the bus
	uint8_t tx_sequence;
	unsigned tx_block_left; // consecutive frames before the next flow control; 0 = no limit
	unsigned tx_waits;
	int64_t tx_gap_us;
	int64_t tx_due_us;      // when the next frame may go out
	int64_t tx_deadline_us; // N_Bs, and N_As once the frame has been due
	bool tx_timed;          // N_As runs
	bool tx_offered;        // the frame has been given out

	bool receiving;
	isotp_result rx_result;
	size_t rx_length;
	size_t rx_offset;
	uint8_t rx_sequence;
	unsigned rx_block_left;
	int64_t rx_deadline_us; // N_Cr

	bool flow_pending;
	bool flow_offered;
	flow_status flow;
	int64_t flow_deadline_us; // N_Ar once it has been given out

	uint8_t tx_pdu[isotp_pdu_max];
	uint8_t rx_pdu[isotp_pdu_max];
};
static_assert(std::is_trivially_copyable_v<isotp_channel>);

// A frame of ours, padding only.
void isotp_start_frame(const isotp_channel *channel, bus_frame *frame);

// What a frame of each type does.
isotp_event isotp_take_single(isotp_channel *channel, const bus_frame *frame, int64_t now_us);
isotp_event isotp_take_first(isotp_channel *channel, const bus_frame *frame, int64_t now_us);
isotp_event isotp_take_consecutive(isotp_channel *channel, const bus_frame *frame, int64_t now_us);
isotp_event isotp_take_flow_control(isotp_channel *channel, const bus_frame *frame, int64_t now_us);

// The send's next frame: is it due, what it holds, and that it is on the bus.
bool isotp_data_is_due(const isotp_channel *channel, int64_t now_us);
void isotp_write_data(const isotp_channel *channel, bus_frame *frame);
void isotp_data_sent(isotp_channel *channel, int64_t now_us);

// The flow control that the reception has pending.
void isotp_write_flow_control(const isotp_channel *channel, bus_frame *frame);
void isotp_flow_control_sent(isotp_channel *channel, int64_t now_us);

// The halves of isotp_step and isotp_deadline.
void isotp_step_send(isotp_channel *channel, int64_t now_us);
isotp_event isotp_step_reception(isotp_channel *channel, int64_t now_us);
int64_t isotp_send_deadline(const isotp_channel *channel);
int64_t isotp_reception_deadline(const isotp_channel *channel);
