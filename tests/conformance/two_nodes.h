// Two channels on one bus under one clock that only the test turns: what one sends the other takes, but for a frame
// that is lost.
#pragma once

#include <algorithm>
#include <memory>

#include "row.h"

class two_nodes
{
public:
	static constexpr int none_is_lost = -1;

	// What a message came to on either side.
	struct outcome {
		isotp_result sent = ISOTP_ERROR;
		bool is_received = false;
		isotp_result failure = ISOTP_OK; // of the reception, if it ended without a PDU
		bytes pdu;
		int64_t took_us = 0; // until neither side had anything to wait for
	};

	// Both announce that block size and STmin.
	two_nodes(uint8_t block_size, uint8_t st_min)
	{
		isotp_settings settings = isotp_default_settings(0x7E0, 0x7E8);
		settings.block_size = block_size;
		settings.st_min = st_min;
		nodes_[0].reset(isotp_channel_new(&settings));
		std::swap(settings.tx_id, settings.rx_id);
		nodes_[1].reset(isotp_channel_new(&settings));
	}

	// Node `from` sends to the other one; the lost_frame-th frame of the exchange, from 0, flow controls counted, is
	// lost.
	outcome send(int from, const bytes &pdu, int lost_frame = none_is_lost)
	{
		outcome result;
		lost_ = lost_frame;
		frames_ = 0;
		const int64_t began_us = now_us_;
		if (isotp_send(nodes_[from].get(), pdu.data(), pdu.size(), now_us_) != 0)
			return result;
		for (;;) {
			while (move_frame(0, result) || move_frame(1, result))
				;
			const int64_t next_us = std::min(isotp_deadline(nodes_[0].get()), isotp_deadline(nodes_[1].get()));
			if (next_us == isotp_never)
				break;
			now_us_ = next_us;
			take_event(isotp_step(nodes_[0].get(), now_us_), 0, result);
			take_event(isotp_step(nodes_[1].get(), now_us_), 1, result);
		}
		result.sent = isotp_send_result(nodes_[from].get());
		result.took_us = now_us_ - began_us;
		return result;
	}

	// Of the last exchange, the lost one included.
	int frames() const
	{
		return frames_;
	}

private:
	using channel_owner = std::unique_ptr<isotp_channel, void (*)(isotp_channel *)>;

	void take_event(isotp_event event, int node, outcome &result)
	{
		const isotp_channel *channel = nodes_[node].get();
		size_t length = 0;
		if (event == ISOTP_EVENT_PDU) {
			const uint8_t *pdu = isotp_pdu(channel, &length);
			result.is_received = true;
			result.pdu.assign(pdu, pdu + length);
		} else if (event == ISOTP_EVENT_FAILED) {
			result.failure = isotp_reception_result(channel);
		}
	}

	// The next frame that a node has due, to the other one.
	bool move_frame(int from, outcome &result)
	{
		bus_frame frame{};
		const isotp_out out = isotp_next_frame(nodes_[from].get(), &frame, now_us_);
		if (out == ISOTP_OUT_NONE)
			return false;
		isotp_frame_sent(nodes_[from].get(), out, now_us_);
		const int to = 1 - from;
		if (frames_++ != lost_)
			take_event(isotp_take_frame(nodes_[to].get(), &frame, now_us_), to, result);
		return true;
	}

	channel_owner nodes_[2] = {{nullptr, isotp_channel_free}, {nullptr, isotp_channel_free}};
	int64_t now_us_ = INT64_C(10'000'000'000'000);
	int lost_ = none_is_lost;
	int frames_ = 0;
};
