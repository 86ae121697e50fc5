#include "isotp_bench.h"

namespace
{

class isotp_receiver : public isotp_bench
{
protected:
	static inline const bytes go_on = {0x30, 0, 0, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC};
	static inline const bytes first_of_20 = {0x10, 20, 0, 1, 2, 3, 4, 5};
	static inline const bytes second_of_20 = {0x21, 6, 7, 8, 9, 10, 11, 12};
	static inline const bytes third_of_20 = {0x22, 13, 14, 15, 16, 17, 18, 19};

	void begin()
	{
		ASSERT_EQ(take(first_of_20), ISOTP_EVENT_BEGUN);
		ASSERT_EQ(sent(), std::vector<bytes>{go_on});
	}

	static bytes twenty()
	{
		bytes result(20);
		for (size_t i = 0; i < result.size(); i++)
			result[i] = static_cast<uint8_t>(i);
		return result;
	}

	// Plays a whole segmented PDU by hand; the flow controls that came back.
	size_t play(const bytes &data)
	{
		bytes frame;
		size_t at_byte = 0;
		const auto fill = [&] {
			while (frame.size() < 8 && at_byte < data.size())
				frame.push_back(data[at_byte++]);
		};
		if (data.size() > 4095)
			frame = {0x10, 0, 0, 0, static_cast<uint8_t>(data.size() >> 8), static_cast<uint8_t>(data.size())};
		else
			frame = {static_cast<uint8_t>(0x10 | data.size() >> 8), static_cast<uint8_t>(data.size())};
		fill();
		EXPECT_EQ(take(frame), ISOTP_EVENT_BEGUN);
		size_t flow_controls = sent().size();
		for (uint8_t sequence = 1; at_byte < data.size(); sequence = static_cast<uint8_t>((sequence + 1) & 0x0F)) {
			frame = {static_cast<uint8_t>(0x20 | sequence)};
			fill();
			const bool is_last = at_byte == data.size();
			EXPECT_EQ(take(frame), is_last ? ISOTP_EVENT_PDU : ISOTP_EVENT_NONE);
			flow_controls += sent().size();
		}
		return flow_controls;
	}
};

TEST_F(isotp_receiver, takes_a_single_frame_and_passes_over_its_padding)
{
	EXPECT_EQ(take({0x03, 0x7F, 0x22, 0x31, 0xAA, 0xAA, 0xAA, 0xAA}), ISOTP_EVENT_PDU);
	EXPECT_EQ(pdu, (bytes{0x7F, 0x22, 0x31}));
}

TEST_F(isotp_receiver, takes_a_single_frame_without_padding)
{
	EXPECT_EQ(take({0x02, 0x7E, 0x00}), ISOTP_EVENT_PDU);
	EXPECT_EQ(pdu, (bytes{0x7E, 0x00}));
}

TEST_F(isotp_receiver, takes_seven_bytes_in_a_single_frame)
{
	EXPECT_EQ(take({0x07, 1, 2, 3, 4, 5, 6, 7}), ISOTP_EVENT_PDU);
	EXPECT_EQ(pdu, (bytes{1, 2, 3, 4, 5, 6, 7}));
}

TEST_F(isotp_receiver, passes_over_malformed_single_frames)
{
	const bytes rows[] = {{}, {0x00, 1, 2, 3, 4, 5, 6, 7}, {0x08, 1, 2, 3, 4, 5, 6, 7}, {0x0F, 1, 2, 3, 4, 5, 6, 7},
			{0x03, 1, 2}, {0x01}};
	for (const bytes &row : rows)
		EXPECT_EQ(take(row), ISOTP_EVENT_NONE) << testing::PrintToString(row);
}

TEST_F(isotp_receiver, passes_over_frame_types_that_it_does_not_know)
{
	for (unsigned type = 4; type <= 0x0F; type++)
		EXPECT_EQ(take({static_cast<uint8_t>(type << 4 | 1), 1, 2, 3, 4, 5, 6, 7}), ISOTP_EVENT_NONE) << type;
}

TEST_F(isotp_receiver, passes_over_frames_of_another_identifier_or_format)
{
	bus_frame frame = frame_of(their_id, {0x01, 0x7E});
	frame.is_extended = true;
	EXPECT_EQ(take_frame(frame), ISOTP_EVENT_NONE);
	EXPECT_EQ(take_frame(frame_of(their_id + 1, {0x01, 0x7E})), ISOTP_EVENT_NONE);
	EXPECT_EQ(take_frame(frame_of(our_id, {0x01, 0x7E})), ISOTP_EVENT_NONE);
}

TEST_F(isotp_receiver, takes_nothing_without_a_receive_identifier)
{
	settings = isotp_default_settings(our_id, 0);
	open();

	EXPECT_EQ(take_frame(frame_of(0, {0x01, 0x7E})), ISOTP_EVENT_NONE);
}

TEST_F(isotp_receiver, takes_29_bit_frames_for_identifiers_above_7FF)
{
	settings = isotp_default_settings(0x18DA10F1, 0x18DAF110);
	open();

	EXPECT_EQ(take({0x02, 0x7E, 0x00}), ISOTP_EVENT_PDU);
}

TEST_F(isotp_receiver, joins_the_frames_of_every_length)
{
	for (const size_t length : {8u, 13u, 62u, 4095u, 4096u, 8191u}) {
		SCOPED_TRACE(length);
		EXPECT_EQ(play(counted_bytes(length)), 1u);
		EXPECT_EQ(pdu, counted_bytes(length));
		EXPECT_FALSE(isotp_receiving(channel.get()));
	}
}

TEST_F(isotp_receiver, announces_its_block_size_and_separation_time)
{
	settings.block_size = 8;
	settings.st_min = 0xF5;
	open();

	take(first_of_20);

	EXPECT_EQ(sent(), (std::vector<bytes>{{0x30, 8, 0xF5, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}}));
}

TEST_F(isotp_receiver, sends_a_flow_control_after_each_block_but_not_after_the_last_frame)
{
	struct row {
		uint8_t block_size;
		size_t consecutive;
		size_t flow_controls;
	};
	const row rows[] = {{0, 20, 1}, {8, 7, 1}, {8, 8, 1}, {8, 9, 2}, {3, 7, 3}, {1, 4, 4}, {255, 256, 2}};
	for (const row &r : rows) {
		SCOPED_TRACE(testing::Message() << int(r.block_size) << " " << r.consecutive);
		settings.block_size = r.block_size;
		open();

		EXPECT_EQ(play(counted_bytes(6 + 7 * r.consecutive)), r.flow_controls);
		EXPECT_EQ(pdu, counted_bytes(6 + 7 * r.consecutive));
	}
}

TEST_F(isotp_receiver, passes_over_malformed_first_frames_without_a_flow_control)
{
	const bytes rows[] = {
			{0x10, 20, 0, 1, 2, 3, 4},   // not 8 bytes
			{0x10, 7, 0, 1, 2, 3, 4, 5}, // fits in a single frame
			{0x10, 1, 0, 1, 2, 3, 4, 5},
			{0x10, 0, 0, 0, 0x0F, 0xFF, 1, 2}, // the escape for a length of 4095
			{0x10, 0, 0, 0, 0, 0, 1, 2},
			{0x10, 0, 0, 0, 0x10},
	};
	for (const bytes &row : rows) {
		SCOPED_TRACE(testing::PrintToString(row));
		EXPECT_EQ(take(row), ISOTP_EVENT_NONE);
		EXPECT_TRUE(sent().empty());
		EXPECT_FALSE(isotp_receiving(channel.get()));
	}
}

TEST_F(isotp_receiver, answers_a_pdu_that_is_too_long_with_overflow)
{
	const bytes rows[] = {{0x10, 0, 0, 0, 0x20, 0x00, 1, 2}, {0x10, 0, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2}};
	for (const bytes &row : rows) {
		SCOPED_TRACE(testing::PrintToString(row));
		EXPECT_EQ(take(row), ISOTP_EVENT_FAILED);
		EXPECT_EQ(reception_result(), ISOTP_BUFFER_OVERFLOW);
		EXPECT_EQ(sent(), (std::vector<bytes>{{0x32, 0, 0, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}}));
		EXPECT_FALSE(isotp_receiving(channel.get()));
		EXPECT_EQ(isotp_deadline(channel.get()), isotp_never);
	}
}

TEST_F(isotp_receiver, keeps_to_a_smaller_limit_of_its_settings)
{
	settings.receive_limit = 19;
	open();

	EXPECT_EQ(take(first_of_20), ISOTP_EVENT_FAILED);
	EXPECT_EQ(sent().at(0).at(0), 0x32);
}

TEST_F(isotp_receiver, gives_up_an_overflow_that_does_not_get_onto_the_bus)
{
	settings.receive_limit = 19;
	open();
	take(first_of_20);
	bus_frame frame{};
	ASSERT_EQ(isotp_next_frame(channel.get(), &frame, now), ISOTP_OUT_FLOW_CONTROL);

	EXPECT_EQ(at(isotp_timeout_us), ISOTP_EVENT_NONE);

	EXPECT_TRUE(sent().empty());
}

TEST_F(isotp_receiver, on_a_functional_identifier_passes_over_first_frames)
{
	settings.single_frames_only = true;
	open();

	EXPECT_EQ(take(first_of_20), ISOTP_EVENT_NONE);
	EXPECT_TRUE(sent().empty());
	EXPECT_EQ(take({0x02, 0x3E, 0x80}), ISOTP_EVENT_PDU);
}

TEST_F(isotp_receiver, ends_at_a_consecutive_frame_out_of_sequence)
{
	for (const int wrong : {0x20, 0x22, 0x2F}) {
		SCOPED_TRACE(wrong);
		begin();
		bytes frame = second_of_20;
		frame[0] = static_cast<uint8_t>(wrong);

		EXPECT_EQ(take(frame), ISOTP_EVENT_FAILED);

		EXPECT_EQ(reception_result(), ISOTP_WRONG_SN);
		EXPECT_FALSE(isotp_receiving(channel.get()));
		EXPECT_EQ(take(second_of_20), ISOTP_EVENT_NONE) << "the rest of that message is passed over";
	}
}

TEST_F(isotp_receiver, ends_at_a_consecutive_frame_that_comes_twice)
{
	begin();
	ASSERT_EQ(take(second_of_20), ISOTP_EVENT_NONE);

	EXPECT_EQ(take(second_of_20), ISOTP_EVENT_FAILED);
	EXPECT_EQ(reception_result(), ISOTP_WRONG_SN);
}

TEST_F(isotp_receiver, passes_over_a_consecutive_frame_that_is_too_short_for_its_place)
{
	begin();

	EXPECT_EQ(take({0x21, 6, 7, 8, 9, 10, 11}), ISOTP_EVENT_NONE);
	EXPECT_EQ(take(second_of_20), ISOTP_EVENT_NONE);
	EXPECT_EQ(take({0x22, 13}), ISOTP_EVENT_NONE);
	EXPECT_EQ(take(third_of_20), ISOTP_EVENT_PDU);
	EXPECT_EQ(pdu, twenty());
}

TEST_F(isotp_receiver, passes_over_consecutive_frames_when_idle)
{
	EXPECT_EQ(take(second_of_20), ISOTP_EVENT_NONE);
	EXPECT_TRUE(sent().empty());
}

TEST_F(isotp_receiver, passes_over_a_consecutive_frame_before_its_flow_control_is_out)
{
	ASSERT_EQ(take(first_of_20), ISOTP_EVENT_BEGUN);
	EXPECT_EQ(take(second_of_20), ISOTP_EVENT_NONE);
	ASSERT_EQ(sent().size(), 1u);
	EXPECT_EQ(take(second_of_20), ISOTP_EVENT_NONE);
	EXPECT_EQ(take(third_of_20), ISOTP_EVENT_PDU);
	EXPECT_EQ(pdu, twenty());
}

TEST_F(isotp_receiver, a_single_frame_inside_a_message_replaces_it)
{
	begin();

	EXPECT_EQ(take({0x02, 0x7E, 0x00}), ISOTP_EVENT_PDU);

	EXPECT_EQ(pdu, (bytes{0x7E, 0x00}));
	EXPECT_EQ(reception_result(), ISOTP_UNEXPECTED_PDU);
	EXPECT_FALSE(isotp_receiving(channel.get()));
	EXPECT_EQ(take(second_of_20), ISOTP_EVENT_NONE);
}

TEST_F(isotp_receiver, a_first_frame_inside_a_message_begins_it_anew)
{
	begin();
	ASSERT_EQ(take(second_of_20), ISOTP_EVENT_NONE);

	begin();

	EXPECT_EQ(reception_result(), ISOTP_UNEXPECTED_PDU);
	take(second_of_20);
	EXPECT_EQ(take(third_of_20), ISOTP_EVENT_PDU);
	EXPECT_EQ(pdu, twenty());
}

TEST_F(isotp_receiver, malformed_and_unknown_frames_leave_a_message_alone)
{
	begin();

	for (const bytes &frame : {bytes{0x00, 1}, bytes{0x10, 7, 1, 2, 3, 4, 5, 6}, bytes{0x51, 1}, bytes{0x30, 0, 0}})
		EXPECT_EQ(take(frame), ISOTP_EVENT_NONE);

	take(second_of_20);
	EXPECT_EQ(take(third_of_20), ISOTP_EVENT_PDU);
	EXPECT_EQ(pdu, twenty());
}

TEST_F(isotp_receiver, fails_when_no_consecutive_frame_comes_within_1000_ms)
{
	begin();
	EXPECT_EQ(wait(), isotp_timeout_us);
	at(900000);
	take(second_of_20);
	EXPECT_EQ(wait(), isotp_timeout_us);

	EXPECT_EQ(at(isotp_timeout_us - 1), ISOTP_EVENT_NONE);
	EXPECT_EQ(at(1), ISOTP_EVENT_FAILED);

	EXPECT_EQ(reception_result(), ISOTP_TIMEOUT_CR);
	EXPECT_FALSE(isotp_receiving(channel.get()));
	EXPECT_EQ(isotp_deadline(channel.get()), isotp_never);
}

TEST_F(isotp_receiver, fails_when_its_flow_control_does_not_get_onto_the_bus_within_1000_ms)
{
	ASSERT_EQ(take(first_of_20), ISOTP_EVENT_BEGUN);
	bus_frame frame{};
	ASSERT_EQ(isotp_next_frame(channel.get(), &frame, now), ISOTP_OUT_FLOW_CONTROL);
	EXPECT_EQ(wait(), isotp_timeout_us);

	EXPECT_EQ(at(isotp_timeout_us - 1), ISOTP_EVENT_NONE);
	EXPECT_EQ(at(1), ISOTP_EVENT_FAILED);

	EXPECT_EQ(reception_result(), ISOTP_TIMEOUT_A);
}

TEST_F(isotp_receiver, wants_its_flow_control_sent_at_once)
{
	ASSERT_EQ(take(first_of_20), ISOTP_EVENT_BEGUN);

	EXPECT_LE(isotp_deadline(channel.get()), now);
	EXPECT_EQ(at(isotp_timeout_us * 10), ISOTP_EVENT_NONE) << "N_Ar runs from when the driver asks";
}

TEST_F(isotp_receiver, a_dropped_reception_says_nothing_more)
{
	ASSERT_EQ(take(first_of_20), ISOTP_EVENT_BEGUN);

	isotp_drop_reception(channel.get());

	EXPECT_TRUE(sent().empty());
	EXPECT_FALSE(isotp_receiving(channel.get()));
	EXPECT_EQ(take(second_of_20), ISOTP_EVENT_NONE);
	EXPECT_EQ(at(isotp_timeout_us * 2), ISOTP_EVENT_NONE);
}

TEST_F(isotp_receiver, sends_and_receives_at_the_same_time)
{
	ASSERT_EQ(send(counted_bytes(20)), 0);
	ASSERT_EQ(sent().size(), 1u);
	begin();
	take(second_of_20);

	take({0x30, 0, 0}); // theirs, for our send
	EXPECT_EQ(sent().size(), 2u);
	EXPECT_EQ(state(), ISOTP_SEND_DONE);
	EXPECT_EQ(take(third_of_20), ISOTP_EVENT_PDU);
	EXPECT_EQ(pdu, twenty());
}

TEST_F(isotp_receiver, its_flow_control_goes_out_before_data_that_are_due)
{
	ASSERT_EQ(send(counted_bytes(20)), 0);
	ASSERT_EQ(take(first_of_20), ISOTP_EVENT_BEGUN);

	const std::vector<bytes> frames = sent();

	ASSERT_EQ(frames.size(), 2u);
	EXPECT_EQ(frames[0], go_on);
	EXPECT_EQ(frames[1][0], 0x10);
}

TEST_F(isotp_receiver, data_that_are_due_wait_for_no_more_than_1000_ms_behind_flow_controls_that_do_not_get_out)
{
	ASSERT_EQ(send({0x3E, 0x00}), 0);
	bus_frame frame{};
	for (int i = 0; i < 10; i++) {
		ASSERT_EQ(take(first_of_20), ISOTP_EVENT_BEGUN);
		ASSERT_EQ(isotp_next_frame(channel.get(), &frame, now), ISOTP_OUT_FLOW_CONTROL);
		ASSERT_EQ(state(), ISOTP_SEND_UNDER_WAY);
		at(isotp_timeout_us / 10);
	}

	EXPECT_EQ(state(), ISOTP_SEND_FAILED);
	EXPECT_EQ(send_result(), ISOTP_TIMEOUT_A);
}

TEST_F(isotp_receiver, data_once_given_are_given_again_before_a_flow_control)
{
	ASSERT_EQ(send({0x3E, 0x00}), 0);
	bus_frame frame{};
	ASSERT_EQ(isotp_next_frame(channel.get(), &frame, now), ISOTP_OUT_DATA);
	ASSERT_EQ(take(first_of_20), ISOTP_EVENT_BEGUN);

	const std::vector<bytes> frames = sent();

	ASSERT_EQ(frames.size(), 2u);
	EXPECT_EQ(frames[0][1], 0x3E);
	EXPECT_EQ(frames[1], go_on);
}

TEST_F(isotp_receiver, two_channels_talk_to_each_other)
{
	settings.block_size = 3;
	open();
	const isotp_settings other = isotp_default_settings(their_id, our_id);
	isotp_channel *peer = isotp_channel_new(&other);
	const bytes data = counted_bytes(5000);
	ASSERT_EQ(isotp_send(peer, data.data(), data.size(), now), 0);

	bus_frame frame{};
	isotp_event event = ISOTP_EVENT_NONE;
	for (int i = 0; i < 5000 && event != ISOTP_EVENT_PDU; i++) {
		if (const isotp_out out = isotp_next_frame(peer, &frame, now)) {
			isotp_frame_sent(peer, out, now);
			event = take_frame(frame);
		}
		for (const bytes &flow : sent()) {
			const bus_frame back = frame_of(our_id, flow);
			isotp_take_frame(peer, &back, now);
		}
	}

	EXPECT_EQ(pdu, data);
	EXPECT_EQ(isotp_sending(peer), ISOTP_SEND_DONE);
	isotp_channel_free(peer);
}

} // namespace
