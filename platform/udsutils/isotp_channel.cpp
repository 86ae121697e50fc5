#include "isotp_channel.h"

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "isotp_record.h"

isotp_settings isotp_default_settings(uint32_t tx_id, uint32_t rx_id)
{
	isotp_settings settings{};
	settings.tx_id = tx_id;
	settings.rx_id = rx_id;
	settings.padding = isotp_default_padding;
	settings.single_frames_only = rx_id == 0;
	settings.receive_limit = isotp_pdu_max;
	return settings;
}

isotp_channel *isotp_channel_new(const isotp_settings *settings)
{
	if (settings->tx_id > bus_id_max || settings->rx_id > bus_id_max || settings->receive_limit > isotp_pdu_max)
		return nullptr;

	auto *channel = static_cast<isotp_channel *>(calloc(1, sizeof(isotp_channel)));
	if (channel == nullptr)
		return nullptr;
	channel->settings = *settings;
	if (settings->rx_id == 0) // no flow control could reach us
		channel->settings.single_frames_only = true;
	return channel;
}

void isotp_channel_free(isotp_channel *channel)
{
	free(channel);
}

int64_t isotp_st_min_us(uint8_t st_min)
{
	if (st_min <= 0x7F)
		return st_min * INT64_C(1000);
	if (st_min >= 0xF1 && st_min <= 0xF9)
		return (st_min - 0xF0) * INT64_C(100);
	return INT64_C(127000);
}

const char *isotp_result_name(isotp_result result)
{
	static constexpr const char *names[] = {"N_OK", "N_TIMEOUT_A", "N_TIMEOUT_BS", "N_TIMEOUT_CR", "N_WRONG_SN",
			"N_INVALID_FS", "N_UNEXP_PDU", "N_WFT_OVRN", "N_BUFFER_OVFLW", "N_ERROR"};
	static_assert(std::size(names) == isotp_result_count);
	return result >= 0 && result < isotp_result_count ? names[result] : "N_ERROR";
}

void isotp_start_frame(const isotp_channel *channel, bus_frame *frame)
{
	frame->id = channel->settings.tx_id;
	frame->is_extended = bus_id_is_extended(channel->settings.tx_id);
	frame->length = frame_size;
	memset(frame->data, channel->settings.padding, frame_size);
}

isotp_event isotp_take_frame(isotp_channel *channel, const bus_frame *frame, int64_t now_us)
{
	static constexpr isotp_event (*takers[])(isotp_channel *, const bus_frame *, int64_t) = {
			isotp_take_single, isotp_take_first, isotp_take_consecutive, isotp_take_flow_control};
	static_assert(std::size(takers) == pci_type_count);

	const uint32_t id = channel->settings.rx_id;
	const bool is_ours = id != 0 && frame->id == id && frame->is_extended == bus_id_is_extended(id);
	const unsigned type = frame->data[0] >> 4;
	if (!is_ours || frame->length == 0 || frame->length > frame_size)
		return ISOTP_EVENT_NONE;
	return type < pci_type_count ? takers[type](channel, frame, now_us) : ISOTP_EVENT_NONE;
}

isotp_event isotp_step(isotp_channel *channel, int64_t now_us)
{
	isotp_step_send(channel, now_us);
	return isotp_step_reception(channel, now_us);
}

isotp_out isotp_next_frame(isotp_channel *channel, bus_frame *frame, int64_t now_us)
{
	const bool is_due = isotp_data_is_due(channel, now_us);
	if (is_due && !channel->tx_timed) // also while flow controls, which may be many, go first
		channel->tx_deadline_us = now_us + isotp_timeout_us;
	channel->tx_timed = channel->tx_timed || is_due;
	if (channel->flow_pending && !channel->tx_offered) { // a link may have a part of the frame that was given first
		if (!channel->flow_offered)
			channel->flow_deadline_us = now_us + isotp_timeout_us;
		channel->flow_offered = true;
		isotp_write_flow_control(channel, frame);
		return ISOTP_OUT_FLOW_CONTROL;
	}
	if (!is_due)
		return ISOTP_OUT_NONE;
	channel->tx_offered = true;
	isotp_write_data(channel, frame);
	return ISOTP_OUT_DATA;
}

void isotp_frame_sent(isotp_channel *channel, isotp_out which, int64_t now_us)
{
	if (which == ISOTP_OUT_FLOW_CONTROL && channel->flow_pending)
		isotp_flow_control_sent(channel, now_us);
	if (which == ISOTP_OUT_DATA && channel->tx_offered)
		isotp_data_sent(channel, now_us);
}

int64_t isotp_deadline(const isotp_channel *channel)
{
	const int64_t send = isotp_send_deadline(channel);
	const int64_t reception = isotp_reception_deadline(channel);
	return send < reception ? send : reception;
}
