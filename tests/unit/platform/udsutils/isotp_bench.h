// A channel under a clock that the test turns, and frames by hand on the other side.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "bytes.h"
#include "isotp_channel.h"

inline bus_frame frame_of(uint32_t id, const bytes &data)
{
	bus_frame frame{};
	frame.id = id;
	frame.is_extended = bus_id_is_extended(id);
	frame.length = static_cast<uint8_t>(data.size());
	std::copy(data.begin(), data.end(), frame.data);
	return frame;
}

inline bytes data_of(const bus_frame &frame)
{
	return bytes(frame.data, frame.data + frame.length);
}

class isotp_bench : public testing::Test
{
protected:
	static constexpr uint32_t our_id = 0x7E0;
	static constexpr uint32_t their_id = 0x7E8;

	int64_t now = INT64_C(10'000'000'000'000); // beyond 32 bits, as an uptime of months
	isotp_settings settings = isotp_default_settings(our_id, their_id);
	std::unique_ptr<isotp_channel, void (*)(isotp_channel *)> channel{nullptr, isotp_channel_free};
	bytes pdu; // the last one received

	void open()
	{
		channel.reset(isotp_channel_new(&settings));
		ASSERT_NE(channel, nullptr);
	}

	void SetUp() override
	{
		open();
	}

	int send(const bytes &data)
	{
		return isotp_send(channel.get(), data.data(), data.size(), now);
	}

	isotp_event take_frame(const bus_frame &frame)
	{
		const isotp_event event = isotp_take_frame(channel.get(), &frame, now);
		if (event == ISOTP_EVENT_PDU) {
			size_t length = 0;
			const uint8_t *data = isotp_pdu(channel.get(), &length);
			pdu.assign(data, data + length);
		}
		return event;
	}

	isotp_event take(const bytes &data)
	{
		return take_frame(frame_of(settings.rx_id, data));
	}

	// Every frame that is due now, as sent.
	std::vector<bytes> sent()
	{
		std::vector<bytes> frames;
		bus_frame frame{};
		while (const isotp_out out = isotp_next_frame(channel.get(), &frame, now)) {
			EXPECT_EQ(frame.id, settings.tx_id);
			EXPECT_EQ(frame.is_extended, bus_id_is_extended(settings.tx_id));
			frames.push_back(data_of(frame));
			isotp_frame_sent(channel.get(), out, now);
		}
		return frames;
	}

	isotp_event at(int64_t later_us)
	{
		now += later_us;
		return isotp_step(channel.get(), now);
	}

	isotp_send_state state() const
	{
		return isotp_sending(channel.get());
	}

	isotp_result send_result() const
	{
		return isotp_send_result(channel.get());
	}

	isotp_result reception_result() const
	{
		return isotp_reception_result(channel.get());
	}

	int64_t wait() const
	{
		return isotp_deadline(channel.get()) - now;
	}
};
