// Receiving: frames to one PDU, and the flow controls for them.
#include "isotp_record.h"

#include <cstring>

static constexpr size_t consecutive_size = 7; // bytes of a PDU in a full consecutive frame

const uint8_t *isotp_pdu(const isotp_channel *channel, size_t *length)
{
	*length = channel->rx_length;
	return channel->rx_pdu;
}

bool isotp_receiving(const isotp_channel *channel)
{
	return channel->receiving;
}

isotp_result isotp_reception_result(const isotp_channel *channel)
{
	return channel->rx_result;
}

void isotp_drop_reception(isotp_channel *channel)
{
	channel->receiving = false;
	channel->flow_pending = false;
}

static isotp_event fail_reception(isotp_channel *channel, isotp_result result)
{
	isotp_drop_reception(channel);
	channel->rx_result = result;
	return ISOTP_EVENT_FAILED;
}

// A new message ends the one being received (ISO 15765-2, unexpected arrival of N_PDU).
static void replace_reception(isotp_channel *channel)
{
	if (channel->receiving)
		channel->rx_result = ISOTP_UNEXPECTED_PDU;
	isotp_drop_reception(channel);
}

static void ask_flow_control(isotp_channel *channel, flow_status status)
{
	channel->flow = status;
	channel->flow_pending = true;
	channel->flow_offered = false;
}

isotp_event isotp_take_single(isotp_channel *channel, const bus_frame *frame, int64_t)
{
	const size_t length = frame->data[0] & 0x0Fu;
	if (length == 0 || length > single_max || frame->length < length + 1)
		return ISOTP_EVENT_NONE;

	replace_reception(channel);
	if (length > channel->settings.receive_limit)
		return fail_reception(channel, ISOTP_BUFFER_OVERFLOW);
	memcpy(channel->rx_pdu, frame->data + 1, length);
	channel->rx_length = length;
	return ISOTP_EVENT_PDU;
}

// The length that a first frame announces and the size of its header; 0 for a malformed one.
static size_t first_frame_length(const bus_frame *frame, size_t *header)
{
	if (frame->length != frame_size)
		return 0;
	const size_t length = (frame->data[0] & 0x0Fu) << 8 | frame->data[1];
	*header = short_first_header;
	if (length != 0)
		return length > single_max ? length : 0;

	uint32_t long_length = 0;
	for (int i = 2; i < 6; i++)
		long_length = long_length << 8 | frame->data[i];
	*header = long_first_header;
	return long_length > short_first_max ? long_length : 0;
}

isotp_event isotp_take_first(isotp_channel *channel, const bus_frame *frame, int64_t)
{
	size_t header = 0;
	const size_t length = first_frame_length(frame, &header);
	if (length == 0 || channel->settings.single_frames_only)
		return ISOTP_EVENT_NONE;

	replace_reception(channel);
	if (length > channel->settings.receive_limit) {
		const isotp_event event = fail_reception(channel, ISOTP_BUFFER_OVERFLOW);
		ask_flow_control(channel, FLOW_OVERFLOW);
		return event;
	}
	memcpy(channel->rx_pdu, frame->data + header, frame_size - header);
	channel->rx_length = length;
	channel->rx_offset = frame_size - header;
	channel->rx_sequence = 1;
	channel->receiving = true;
	ask_flow_control(channel, FLOW_CONTINUE);
	return ISOTP_EVENT_BEGUN;
}

isotp_event isotp_take_consecutive(isotp_channel *channel, const bus_frame *frame, int64_t now_us)
{
	if (!channel->receiving || channel->flow_pending)
		return ISOTP_EVENT_NONE;
	const size_t left = channel->rx_length - channel->rx_offset;
	const size_t count = left < consecutive_size ? left : consecutive_size;
	if (frame->length < count + 1) // too short for its place: passed over, N_Cr goes on
		return ISOTP_EVENT_NONE;
	if ((frame->data[0] & 0x0Fu) != channel->rx_sequence)
		return fail_reception(channel, ISOTP_WRONG_SN);

	memcpy(channel->rx_pdu + channel->rx_offset, frame->data + 1, count);
	channel->rx_offset += count;
	channel->rx_sequence = (channel->rx_sequence + 1) & 0x0F;
	channel->rx_deadline_us = now_us + isotp_timeout_us;
	if (channel->rx_offset == channel->rx_length) {
		channel->receiving = false;
		return ISOTP_EVENT_PDU;
	}
	if (channel->rx_block_left != 0 && --channel->rx_block_left == 0)
		ask_flow_control(channel, FLOW_CONTINUE);
	return ISOTP_EVENT_NONE;
}

void isotp_write_flow_control(const isotp_channel *channel, bus_frame *frame)
{
	isotp_start_frame(channel, frame);
	const bool goes_on = channel->flow == FLOW_CONTINUE;
	frame->data[0] = static_cast<uint8_t>(PCI_FLOW_CONTROL << 4 | channel->flow);
	frame->data[1] = goes_on ? channel->settings.block_size : 0;
	frame->data[2] = goes_on ? channel->settings.st_min : 0;
}

void isotp_flow_control_sent(isotp_channel *channel, int64_t now_us)
{
	channel->flow_pending = false;
	channel->rx_block_left = channel->settings.block_size;
	channel->rx_deadline_us = now_us + isotp_timeout_us;
}

isotp_event isotp_step_reception(isotp_channel *channel, int64_t now_us)
{
	if (!channel->flow_pending)
		return channel->receiving && now_us >= channel->rx_deadline_us ? fail_reception(channel, ISOTP_TIMEOUT_CR)
																	   : ISOTP_EVENT_NONE;
	if (!channel->flow_offered || now_us < channel->flow_deadline_us)
		return ISOTP_EVENT_NONE;
	if (channel->receiving)
		return fail_reception(channel, ISOTP_TIMEOUT_A);
	channel->flow_pending = false; // an overflow: its reception has been told as failed
	return ISOTP_EVENT_NONE;
}

int64_t isotp_reception_deadline(const isotp_channel *channel)
{
	if (channel->flow_pending)
		return channel->flow_offered ? channel->flow_deadline_us : 0;
	return channel->receiving ? channel->rx_deadline_us : isotp_never;
}
