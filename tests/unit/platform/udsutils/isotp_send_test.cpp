#include "isotp_bench.h"

namespace
{

constexpr size_t frame_room = 7;

class isotp_sender : public isotp_bench
{
protected:
	static inline const bytes go_on = {0x30, 0, 0};

	// Begins a PDU of 27 bytes: first frame out, three consecutive frames to go.
	void begin()
	{
		ASSERT_EQ(send(counted_bytes(27)), 0);
		ASSERT_EQ(sent().size(), 1u);
	}

	void expect_failed(isotp_result result)
	{
		EXPECT_EQ(state(), ISOTP_SEND_FAILED);
		EXPECT_EQ(send_result(), result);
		EXPECT_TRUE(sent().empty());
		EXPECT_EQ(isotp_deadline(channel.get()), isotp_never);
	}
};

TEST_F(isotp_sender, sends_up_to_seven_bytes_in_one_padded_frame)
{
	for (size_t length = 1; length <= 7; length++) {
		SCOPED_TRACE(length);
		const bytes data = counted_bytes(length);
		bytes expected(8, 0xCC);
		expected[0] = static_cast<uint8_t>(length);
		std::copy(data.begin(), data.end(), expected.begin() + 1);

		ASSERT_EQ(send(data), 0);

		EXPECT_EQ(sent(), std::vector<bytes>{expected});
		EXPECT_EQ(state(), ISOTP_SEND_DONE);
		EXPECT_EQ(send_result(), ISOTP_OK);
	}
}

TEST_F(isotp_sender, pads_with_the_byte_that_it_is_given)
{
	settings.padding = 0x55;
	open();

	ASSERT_EQ(send({0x3E, 0x00}), 0);

	EXPECT_EQ(sent(), (std::vector<bytes>{{2, 0x3E, 0x00, 0x55, 0x55, 0x55, 0x55, 0x55}}));
}

TEST_F(isotp_sender, uses_29_bit_frames_for_identifiers_above_7FF)
{
	settings = isotp_default_settings(0x18DA10F1, 0x18DAF110);
	open();
	ASSERT_EQ(send(counted_bytes(10)), 0);
	ASSERT_EQ(sent().size(), 1u);

	EXPECT_EQ(take(go_on), ISOTP_EVENT_NONE);

	EXPECT_EQ(sent().size(), 1u);
	EXPECT_EQ(state(), ISOTP_SEND_DONE);
}

TEST_F(isotp_sender, segments_every_length_so_that_the_pieces_make_the_pdu)
{
	for (const size_t length : {8u, 14u, 62u, 4094u, 4095u, 4096u, 8190u, 8191u}) {
		SCOPED_TRACE(length);
		const bytes data = counted_bytes(length);
		ASSERT_EQ(send(data), 0);
		const std::vector<bytes> first = sent();
		ASSERT_EQ(first.size(), 1u);
		ASSERT_EQ(take(go_on), ISOTP_EVENT_NONE);

		const std::vector<bytes> rest = sent();

		const size_t header = length > 4095 ? 6 : 2;
		bytes joined(first[0].begin() + static_cast<long>(header), first[0].end());
		for (size_t i = 0; i < rest.size(); i++) {
			EXPECT_EQ(rest[i][0], 0x20 | ((i + 1) & 0x0F));
			joined.insert(joined.end(), rest[i].begin() + 1, rest[i].end());
		}
		ASSERT_GE(joined.size(), length);
		EXPECT_EQ(bytes(joined.begin() + static_cast<long>(length), joined.end()), bytes(joined.size() - length, 0xCC));
		joined.resize(length);
		EXPECT_EQ(joined, data);
		EXPECT_EQ(rest.size(), (length - (8 - header) + frame_room - 1) / frame_room);
		EXPECT_EQ(state(), ISOTP_SEND_DONE);
	}
}

TEST_F(isotp_sender, writes_twelve_bits_of_length_up_to_4095_and_32_above)
{
	struct row {
		size_t length;
		bytes header;
	};
	const row rows[] = {
			{8, {0x10, 0x08}},
			{4095, {0x1F, 0xFF}},
			{4096, {0x10, 0x00, 0x00, 0x00, 0x10, 0x00}},
			{8191, {0x10, 0x00, 0x00, 0x00, 0x1F, 0xFF}},
	};
	for (const row &r : rows) {
		SCOPED_TRACE(r.length);
		open();
		ASSERT_EQ(send(counted_bytes(r.length)), 0);

		const bytes first = sent().at(0);

		EXPECT_EQ(bytes(first.begin(), first.begin() + static_cast<long>(r.header.size())), r.header);
	}
}

TEST_F(isotp_sender, refuses_an_empty_pdu_one_of_8192_bytes_and_a_second_send)
{
	EXPECT_EQ(send({}), -1);
	EXPECT_EQ(send(counted_bytes(8192)), -1);
	EXPECT_EQ(state(), ISOTP_SEND_IDLE);
	ASSERT_EQ(send({0x3E, 0x00}), 0);
	EXPECT_EQ(send({0x3E, 0x00}), -1);
}

TEST_F(isotp_sender, without_a_receive_identifier_sends_single_frames_only)
{
	settings = isotp_default_settings(0x7DF, 0);
	open();

	EXPECT_EQ(send(counted_bytes(8)), -1);
	EXPECT_EQ(send(counted_bytes(7)), 0);
	EXPECT_EQ(sent().size(), 1u);
}

TEST_F(isotp_sender, waits_for_a_flow_control_after_each_block)
{
	ASSERT_EQ(send(counted_bytes(6 + 7 * 7)), 0);
	ASSERT_EQ(sent().size(), 1u);
	for (const size_t expected : {3u, 3u, 1u}) {
		ASSERT_EQ(state(), ISOTP_SEND_UNDER_WAY);
		take({0x30, 3, 0});
		EXPECT_EQ(sent().size(), expected);
	}
	EXPECT_EQ(state(), ISOTP_SEND_DONE);
}

TEST_F(isotp_sender, takes_block_size_and_st_min_of_each_flow_control_anew)
{
	ASSERT_EQ(send(counted_bytes(6 + 7 * 5)), 0);
	ASSERT_EQ(sent().size(), 1u);
	take({0x30, 2, 0});
	ASSERT_EQ(sent().size(), 2u);

	take({0x30, 0, 5});

	EXPECT_EQ(sent().size(), 1u);
	EXPECT_EQ(wait(), 5000);
	now += 5000;
	EXPECT_EQ(sent().size(), 1u);
	now += 5000;
	EXPECT_EQ(sent().size(), 1u);
	EXPECT_EQ(state(), ISOTP_SEND_DONE);
}

TEST_F(isotp_sender, keeps_the_separation_time_between_consecutive_frames)
{
	struct row {
		uint8_t st_min;
		int64_t gap_us;
	};
	const row rows[] = {{0x01, 1000}, {0x7F, 127000}, {0x80, 127000}, {0xF0, 127000}, {0xF1, 100}, {0xF5, 500},
			{0xF9, 900}, {0xFA, 127000}, {0xFF, 127000}};
	for (const row &r : rows) {
		SCOPED_TRACE(int(r.st_min));
		open();
		begin();

		take({0x30, 0, r.st_min});

		EXPECT_EQ(sent().size(), 1u) << "the first one goes out at once";
		EXPECT_EQ(wait(), r.gap_us);
		now += r.gap_us - 1;
		EXPECT_TRUE(sent().empty());
		now += 1;
		EXPECT_EQ(sent().size(), 1u);
		now += r.gap_us;
		EXPECT_EQ(sent().size(), 1u);
		EXPECT_EQ(state(), ISOTP_SEND_DONE);
	}
}

TEST_F(isotp_sender, sends_without_a_gap_when_st_min_is_0)
{
	begin();

	take(go_on);

	EXPECT_EQ(sent().size(), 3u);
}

TEST_F(isotp_sender, puts_up_with_16_flow_controls_of_wait_in_a_row)
{
	begin();
	for (int i = 0; i < 16; i++) {
		at(999999);
		take({0x31, 0, 0});
		ASSERT_EQ(state(), ISOTP_SEND_UNDER_WAY) << i;
		ASSERT_EQ(wait(), isotp_timeout_us);
	}

	take(go_on);

	EXPECT_EQ(sent().size(), 3u);
	EXPECT_EQ(state(), ISOTP_SEND_DONE);
}

TEST_F(isotp_sender, fails_at_the_17th_wait_in_a_row)
{
	begin();
	for (int i = 0; i < 17; i++)
		take({0x31, 0, 0});

	expect_failed(ISOTP_WFT_OVERRUN);
}

TEST_F(isotp_sender, counts_waits_anew_after_a_go_on)
{
	begin();
	for (int i = 0; i < 16; i++)
		take({0x31, 0, 0});
	take({0x30, 1, 0});
	ASSERT_EQ(sent().size(), 1u);
	for (int i = 0; i < 16; i++)
		take({0x31, 0, 0});

	EXPECT_EQ(state(), ISOTP_SEND_UNDER_WAY);
}

TEST_F(isotp_sender, ends_when_the_receiver_has_no_room)
{
	begin();

	take({0x32, 0, 0});

	expect_failed(ISOTP_BUFFER_OVERFLOW);
}

TEST_F(isotp_sender, ends_at_a_flow_control_of_a_reserved_status)
{
	for (uint8_t status = 3; status <= 0x0F; status++) {
		SCOPED_TRACE(int(status));
		open();
		begin();

		take({static_cast<uint8_t>(0x30 | status), 0, 0});

		expect_failed(ISOTP_INVALID_FS);
	}
}

TEST_F(isotp_sender, passes_over_a_flow_control_that_is_cut_short_or_of_another_identifier)
{
	begin();

	take({0x30});
	take({0x30, 0});
	take_frame(frame_of(their_id + 1, go_on));
	bus_frame extended = frame_of(their_id, go_on);
	extended.is_extended = true;
	take_frame(extended);

	EXPECT_TRUE(sent().empty());
	EXPECT_EQ(state(), ISOTP_SEND_UNDER_WAY);
}

TEST_F(isotp_sender, passes_over_a_flow_control_that_it_does_not_wait_for)
{
	take({0x32, 0, 0}); // idle
	begin();
	take({0x30, 0, 10});
	ASSERT_EQ(sent().size(), 1u);

	take({0x32, 0, 0}); // inside a block
	now += 20000;

	EXPECT_EQ(sent().size(), 1u);
	EXPECT_EQ(state(), ISOTP_SEND_UNDER_WAY);
}

TEST_F(isotp_sender, fails_when_no_flow_control_comes_within_1000_ms)
{
	begin();
	EXPECT_EQ(wait(), isotp_timeout_us);

	at(isotp_timeout_us - 1);
	EXPECT_EQ(state(), ISOTP_SEND_UNDER_WAY);
	at(1);

	expect_failed(ISOTP_TIMEOUT_BS);
}

TEST_F(isotp_sender, fails_when_no_flow_control_comes_after_a_block)
{
	begin();
	take({0x30, 1, 0});
	at(300000);
	ASSERT_EQ(sent().size(), 1u);

	at(isotp_timeout_us - 1);
	EXPECT_EQ(state(), ISOTP_SEND_UNDER_WAY);
	at(1);

	expect_failed(ISOTP_TIMEOUT_BS);
}

TEST_F(isotp_sender, fails_when_its_frame_does_not_get_onto_the_bus_within_1000_ms)
{
	ASSERT_EQ(send({0x3E, 0x00}), 0);
	bus_frame frame{};
	ASSERT_EQ(isotp_next_frame(channel.get(), &frame, now), ISOTP_OUT_DATA);
	EXPECT_EQ(wait(), isotp_timeout_us);

	at(isotp_timeout_us - 1);
	ASSERT_EQ(isotp_next_frame(channel.get(), &frame, now), ISOTP_OUT_DATA) << "given again until it is sent";
	EXPECT_EQ(state(), ISOTP_SEND_UNDER_WAY);
	at(1);

	expect_failed(ISOTP_TIMEOUT_A);
}

TEST_F(isotp_sender, fails_when_a_consecutive_frame_does_not_get_onto_the_bus)
{
	begin();
	take(go_on);
	bus_frame frame{};
	ASSERT_EQ(isotp_next_frame(channel.get(), &frame, now), ISOTP_OUT_DATA);

	at(isotp_timeout_us);

	expect_failed(ISOTP_TIMEOUT_A);
}

TEST_F(isotp_sender, works_again_after_a_failed_send)
{
	begin();
	at(isotp_timeout_us);
	ASSERT_EQ(state(), ISOTP_SEND_FAILED);

	begin();
	take(go_on);

	EXPECT_EQ(sent().size(), 3u);
	EXPECT_EQ(state(), ISOTP_SEND_DONE);
	EXPECT_EQ(send_result(), ISOTP_OK);
}

TEST_F(isotp_sender, an_aborted_send_fails_and_is_silent)
{
	begin();

	isotp_abort_send(channel.get());

	expect_failed(ISOTP_ERROR);
}

TEST_F(isotp_sender, has_no_deadline_when_there_is_nothing_to_do)
{
	EXPECT_EQ(isotp_deadline(channel.get()), isotp_never);
	EXPECT_EQ(at(INT64_C(1) << 40), ISOTP_EVENT_NONE);
	EXPECT_EQ(state(), ISOTP_SEND_IDLE);
}

TEST(isotp_settings_of_a_channel, refuses_identifiers_above_1FFFFFFF_and_a_limit_above_8191)
{
	isotp_settings rows[3] = {
			isotp_default_settings(0x20000000, 1), isotp_default_settings(1, 0x20000000), isotp_default_settings(1, 2)};
	rows[2].receive_limit = 8192;
	for (const isotp_settings &row : rows)
		EXPECT_EQ(isotp_channel_new(&row), nullptr);
	isotp_channel_free(nullptr);
}

TEST(isotp_result_name_of, every_result_has_the_name_of_the_standard)
{
	EXPECT_STREQ(isotp_result_name(ISOTP_OK), "N_OK");
	EXPECT_STREQ(isotp_result_name(ISOTP_TIMEOUT_BS), "N_TIMEOUT_BS");
	EXPECT_STREQ(isotp_result_name(ISOTP_BUFFER_OVERFLOW), "N_BUFFER_OVFLW");
	EXPECT_STREQ(isotp_result_name(static_cast<isotp_result>(99)), "N_ERROR");
}

} // namespace
