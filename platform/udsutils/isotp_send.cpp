// Sending: one PDU as frames, at the pace that the receiver's flow controls set.
#include "isotp_record.h"

#include <cstring>
#include <iterator>

static constexpr size_t flow_control_size = 3;

int isotp_send(isotp_channel *channel, const uint8_t *pdu, size_t length, int64_t now_us)
{
	const size_t limit = channel->settings.single_frames_only ? single_max : isotp_pdu_max;
	if (length == 0 || length > limit || channel->send_state == ISOTP_SEND_UNDER_WAY)
		return -1;

	memcpy(channel->tx_pdu, pdu, length);
	channel->tx_length = length;
	channel->tx_offset = 0;
	channel->tx_sequence = 1;
	channel->tx_waits = 0;
	channel->tx_due_us = now_us;
	channel->phase = length <= single_max ? SENDS_SINGLE : SENDS_FIRST;
	channel->send_state = ISOTP_SEND_UNDER_WAY;
	channel->send_result = ISOTP_OK;
	return 0;
}

static void end_send(isotp_channel *channel, isotp_result result)
{
	channel->send_state = result == ISOTP_OK ? ISOTP_SEND_DONE : ISOTP_SEND_FAILED;
	channel->send_result = result;
	channel->tx_timed = false;
	channel->tx_offered = false;
}

void isotp_abort_send(isotp_channel *channel)
{
	if (channel->send_state == ISOTP_SEND_UNDER_WAY)
		end_send(channel, ISOTP_ERROR);
}

isotp_send_state isotp_sending(const isotp_channel *channel)
{
	return channel->send_state;
}

isotp_result isotp_send_result(const isotp_channel *channel)
{
	return channel->send_result;
}

static void await_flow_control(isotp_channel *channel, int64_t now_us)
{
	channel->phase = AWAITS_FLOW_CONTROL;
	channel->tx_deadline_us = now_us + isotp_timeout_us;
}

// Block size and STmin of each flow control hold from there on: a receiver may change them between blocks.
static void take_flow_continue(isotp_channel *channel, const bus_frame *frame, int64_t now_us)
{
	channel->tx_waits = 0;
	channel->tx_block_left = frame->data[1];
	channel->tx_gap_us = isotp_st_min_us(frame->data[2]);
	channel->tx_due_us = now_us;
	channel->phase = SENDS_CONSECUTIVE;
}

static void take_flow_wait(isotp_channel *channel, const bus_frame *, int64_t now_us)
{
	if (++channel->tx_waits > isotp_waits_max)
		end_send(channel, ISOTP_WFT_OVERRUN);
	else
		await_flow_control(channel, now_us);
}

static void take_flow_overflow(isotp_channel *channel, const bus_frame *, int64_t)
{
	end_send(channel, ISOTP_BUFFER_OVERFLOW);
}

isotp_event isotp_take_flow_control(isotp_channel *channel, const bus_frame *frame, int64_t now_us)
{
	static constexpr void (*takers[])(isotp_channel *, const bus_frame *, int64_t) = {
			take_flow_continue, take_flow_wait, take_flow_overflow};
	static_assert(std::size(takers) == flow_status_count);

	const bool is_awaited = channel->send_state == ISOTP_SEND_UNDER_WAY && channel->phase == AWAITS_FLOW_CONTROL;
	if (!is_awaited || frame->length < flow_control_size)
		return ISOTP_EVENT_NONE;

	const unsigned status = frame->data[0] & 0x0Fu;
	if (status < flow_status_count)
		takers[status](channel, frame, now_us);
	else
		end_send(channel, ISOTP_INVALID_FS);
	return ISOTP_EVENT_NONE;
}

bool isotp_data_is_due(const isotp_channel *channel, int64_t now_us)
{
	return channel->send_state == ISOTP_SEND_UNDER_WAY && channel->phase != AWAITS_FLOW_CONTROL &&
			now_us >= channel->tx_due_us;
}

// Bytes before the PDU's own in the frame that is due.
static size_t data_header(const isotp_channel *channel)
{
	if (channel->phase != SENDS_FIRST)
		return 1;
	return channel->tx_length > short_first_max ? long_first_header : short_first_header;
}

static size_t data_count(const isotp_channel *channel)
{
	const size_t left = channel->tx_length - channel->tx_offset;
	const size_t room = frame_size - data_header(channel);
	return left < room ? left : room;
}

static void write_header(const isotp_channel *channel, uint8_t *data)
{
	const size_t length = channel->tx_length;
	if (channel->phase == SENDS_SINGLE) {
		data[0] = static_cast<uint8_t>(length);
	} else if (channel->phase == SENDS_CONSECUTIVE) {
		data[0] = static_cast<uint8_t>(PCI_CONSECUTIVE << 4 | channel->tx_sequence);
	} else if (length <= short_first_max) {
		data[0] = static_cast<uint8_t>(PCI_FIRST << 4 | length >> 8);
		data[1] = static_cast<uint8_t>(length);
	} else {
		data[0] = PCI_FIRST << 4;
		data[1] = 0;
		for (int i = 0; i < 4; i++)
			data[2 + i] = static_cast<uint8_t>(length >> (24 - 8 * i));
	}
}

void isotp_write_data(const isotp_channel *channel, bus_frame *frame)
{
	isotp_start_frame(channel, frame);
	write_header(channel, frame->data);
	memcpy(frame->data + data_header(channel), channel->tx_pdu + channel->tx_offset, data_count(channel));
}

void isotp_data_sent(isotp_channel *channel, int64_t now_us)
{
	const bool was_first = channel->phase == SENDS_FIRST;
	channel->tx_offset += data_count(channel);
	channel->tx_timed = false;
	channel->tx_offered = false;
	if (channel->tx_offset == channel->tx_length) {
		end_send(channel, ISOTP_OK);
		return;
	}
	if (was_first) {
		await_flow_control(channel, now_us);
		return;
	}
	channel->tx_sequence = (channel->tx_sequence + 1) & 0x0F;
	channel->tx_due_us = now_us + channel->tx_gap_us;
	if (channel->tx_block_left != 0 && --channel->tx_block_left == 0)
		await_flow_control(channel, now_us);
}

void isotp_step_send(isotp_channel *channel, int64_t now_us)
{
	if (channel->send_state != ISOTP_SEND_UNDER_WAY || now_us < channel->tx_deadline_us)
		return;
	if (channel->tx_timed)
		end_send(channel, ISOTP_TIMEOUT_A);
	else if (channel->phase == AWAITS_FLOW_CONTROL)
		end_send(channel, ISOTP_TIMEOUT_BS);
}

int64_t isotp_send_deadline(const isotp_channel *channel)
{
	if (channel->send_state != ISOTP_SEND_UNDER_WAY)
		return isotp_never;
	const bool waits = channel->tx_timed || channel->phase == AWAITS_FLOW_CONTROL;
	return waits ? channel->tx_deadline_us : channel->tx_due_us;
}
