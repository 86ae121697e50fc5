// Frames, sends and the passing of time in any order. The input is a list of steps, each a byte that says what and the
// bytes that it needs. Two channels take the same steps: one with small blocks, one for functional addressing.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "isotp_channel.h"

struct steps {
	const uint8_t *at;
	size_t left;
};

static uint8_t next_byte(steps *input)
{
	if (input->left == 0)
		return 0;
	input->left--;
	return *input->at++;
}

static void require(bool holds)
{
	if (!holds)
		abort();
}

static void take_frame(isotp_channel *channel, steps *input, uint32_t limit, int64_t now_us)
{
	bus_frame frame{};
	frame.id = 0x7E8;
	frame.length = next_byte(input) % 9;
	for (size_t i = 0; i < frame.length; i++)
		frame.data[i] = next_byte(input);
	if (isotp_take_frame(channel, &frame, now_us) != ISOTP_EVENT_PDU)
		return;
	size_t length = 0;
	const uint8_t *pdu = isotp_pdu(channel, &length);
	require(length >= 1 && length <= limit);
	const std::vector<uint8_t> copy(pdu, pdu + length);
}

static void send_frames(isotp_channel *channel, int64_t now_us)
{
	bus_frame frame{};
	for (int i = 0; i < 4; i++) {
		const isotp_out out = isotp_next_frame(channel, &frame, now_us);
		if (out == ISOTP_OUT_NONE)
			return;
		require(frame.id == 0x7E0 && frame.length == 8);
		isotp_frame_sent(channel, out, now_us);
	}
}

static void begin_send(isotp_channel *channel, steps *input, int64_t now_us)
{
	const size_t length = size_t{next_byte(input)} * 33;
	const std::vector<uint8_t> pdu(length + 1, 0x5A);
	const bool was_sending = isotp_sending(channel) == ISOTP_SEND_UNDER_WAY;
	require(isotp_send(channel, pdu.data(), length, now_us) != 0 || (!was_sending && length > 0));
}

static void play(const isotp_settings &settings, steps input)
{
	isotp_channel *channel = isotp_channel_new(&settings);
	require(channel != nullptr);
	int64_t now_us = 1;
	while (input.left > 0) {
		switch (next_byte(&input) % 6) {
		case 0:
			begin_send(channel, &input, now_us);
			break;
		case 1:
			now_us += int64_t{next_byte(&input)} * 10000;
			(void)isotp_step(channel, now_us); // the outcome shows in the state
			break;
		case 2:
			isotp_drop_reception(channel);
			require(!isotp_receiving(channel));
			break;
		case 3:
			send_frames(channel, now_us);
			break;
		default:
			take_frame(channel, &input, settings.receive_limit, now_us);
			break;
		}
		require(!isotp_receiving(channel) || isotp_deadline(channel) != isotp_never);
		require(isotp_sending(channel) != ISOTP_SEND_UNDER_WAY || isotp_deadline(channel) != isotp_never);
		require(strcmp(isotp_result_name(isotp_send_result(channel)), "") != 0);
	}
	now_us += 2 * isotp_timeout_us; // everything ends, however it was left
	bus_frame frame{};
	while (isotp_next_frame(channel, &frame, now_us) == ISOTP_OUT_FLOW_CONTROL)
		isotp_frame_sent(channel, ISOTP_OUT_FLOW_CONTROL, now_us);
	now_us += 2 * isotp_timeout_us;
	(void)isotp_step(channel, now_us);
	(void)isotp_next_frame(channel, &frame, now_us);
	(void)isotp_step(channel, now_us + isotp_timeout_us);
	require(!isotp_receiving(channel));
	require(isotp_sending(channel) != ISOTP_SEND_UNDER_WAY);
	isotp_channel_free(channel);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	isotp_settings settings = isotp_default_settings(0x7E0, 0x7E8);
	settings.block_size = 3;
	play(settings, {data, size});
	settings.single_frames_only = true;
	settings.receive_limit = 5;
	play(settings, {data, size});
	return 0;
}
