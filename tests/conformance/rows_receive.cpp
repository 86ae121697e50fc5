// Rows in which we receive: every frame type and length, malformed frames, and frames out of sequence.
#include "row.h"

static std::string number(size_t value)
{
	return std::to_string(value);
}

static bytes cut(bytes frame, size_t length)
{
	frame.resize(length);
	return frame;
}

static bytes padded(bytes frame, uint8_t padding)
{
	frame.resize(8, padding);
	return frame;
}

// A message of 20 bytes has been begun, and we have asked for the rest.
static script begun_20()
{
	return {receive(), put(first(20)), see(go_on)};
}

static script rest_of_20()
{
	return {put_consecutive(20, 1, 2), received(20)};
}

static std::vector<row> single_rows()
{
	std::vector<row> rows = {
			{"takes_the_bytes_of_a_single_frame_as_they_are", {},
					{receive(), put({0x03, 0x7F, 0x22, 0x31, 0xAA, 0xAA, 0xAA, 0xAA}),
							received_bytes({0x7F, 0x22, 0x31})}},
	};
	for (const size_t length : {1, 2, 3, 4, 5, 6, 7}) {
		rows.push_back({"takes_" + number(length) + "_bytes_in_a_single_frame_without_padding", {},
				{receive(), put(single(length)), received(length)}});
		if (length < 7)
			rows.push_back({"takes_" + number(length) + "_bytes_in_a_padded_single_frame", {},
					{receive(), put(padded(single(length), static_cast<uint8_t>(length * 0x25))), received(length)}});
	}
	return rows;
}

static std::vector<row> segmented_rows()
{
	std::vector<row> rows = {
			{"joins_the_bytes_of_all_frames", {},
					{receive(), put({0x10, 0x0F, 1, 2, 3, 4, 5, 6}),
							see({0x30, 0x00, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}), put({0x21, 7, 8, 9, 10, 11, 12, 13}),
							put({0x22, 14, 15, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA}),
							received_bytes({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15})}},
	};
	for (const size_t length : {8, 9, 12, 13, 14, 62, 118, 4094, 4095, 4096, 4097, 8190, 8191})
		rows.push_back({"takes_" + number(length) + "_bytes_in_segments", {}, whole_receive(length)});
	return rows;
}

static std::vector<row> flow_control_rows()
{
	std::vector<row> rows;
	for (const int size : {1, 2, 3, 8, 15, 16, 255}) {
		const row_settings settings = {.block_size = static_cast<uint8_t>(size)};
		rows.push_back({"asks_for_blocks_of_" + number(static_cast<size_t>(size)), settings,
				whole_receive(size == 255 ? 6 + 7 * 300 : 6 + 7 * 33, settings)});
	}
	for (const int st_min : {0x01, 0x7F, 0x80, 0xF1, 0xF9, 0xFF}) {
		const row_settings settings = {.st_min = static_cast<uint8_t>(st_min)};
		rows.push_back({"announces_a_separation_time_of_" + number(static_cast<size_t>(st_min)), settings,
				whole_receive(20, settings)});
	}
	rows.push_back({"announces_block_size_and_separation_time_together", {.block_size = 2, .st_min = 0xF5},
			whole_receive(41, {.block_size = 2, .st_min = 0xF5})});
	rows.push_back({"sends_no_flow_control_after_the_last_block", {.block_size = 2},
			{whole_receive(20, {.block_size = 2}), quiet(50 * ms)}});
	rows.push_back({"sends_no_flow_control_inside_a_block", {.block_size = 3},
			{receive(), put(first(41)), see(flow(3)), put_consecutive(41, 1, 2), quiet(50 * ms),
					put(consecutive(41, 3)), see(flow(3)), put_consecutive(41, 4, 5), received(41)}});
	rows.push_back({"does_not_mind_how_fast_frames_come", {.st_min = 0x7F}, whole_receive(62, {.st_min = 0x7F})});
	return rows;
}

std::vector<row> rows_of_receiving()
{
	std::vector<row> rows;
	for (const auto &table : {single_rows(), segmented_rows(), flow_control_rows()})
		rows.insert(rows.end(), table.begin(), table.end());
	return rows;
}

// A frame is passed over: what comes behind it is taken as if it had not been there.
static row passed_over(std::string name, bytes frame)
{
	return {std::move(name), {}, {receive(), put(std::move(frame)), quiet(20 * ms), put(single(3)), received(3)}};
}

static std::vector<row> malformed_single_rows()
{
	std::vector<row> rows = {
			passed_over("passes_over_an_empty_frame", {}),
			passed_over("passes_over_a_single_frame_of_length_0", {0x00, 1, 2, 3, 4, 5, 6, 7}),
			passed_over("passes_over_the_escape_of_longer_frames", {0x00, 0x05, 1, 2, 3, 4, 5, 0xCC}),
			passed_over("passes_over_a_single_frame_of_nothing_but_its_header", {0x01}),
	};
	for (unsigned length = 8; length <= 0x0F; length++)
		rows.push_back(passed_over("passes_over_a_single_frame_of_length_" + number(length),
				{static_cast<uint8_t>(length), 1, 2, 3, 4, 5, 6, 7}));
	for (const size_t length : {2, 4, 7})
		rows.push_back(passed_over("passes_over_a_single_frame_of_" + number(length) + "_bytes_that_is_cut_short",
				cut(single(length), length)));
	for (unsigned type = 4; type <= 0x0F; type++)
		rows.push_back(passed_over("passes_over_the_reserved_frame_type_" + number(type),
				{static_cast<uint8_t>(type << 4 | 2), 1, 2, 3, 4, 5, 6, 7}));
	return rows;
}

static std::vector<row> malformed_first_rows()
{
	std::vector<row> rows = {
			passed_over("passes_over_a_length_of_4095_told_in_32_bits", {0x10, 0, 0, 0, 0x0F, 0xFF, 1, 2}),
			passed_over("passes_over_a_length_of_8_told_in_32_bits", {0x10, 0, 0, 0, 0, 8, 1, 2}),
			passed_over("passes_over_a_length_of_0_told_in_32_bits", {0x10, 0, 0, 0, 0, 0, 1, 2}),
			{"passes_over_the_consecutive_frames_of_a_first_frame_that_is_cut_short", {},
					{receive(), put(cut(first(20), 7)), quiet(20 * ms), put_consecutive(20, 1, 2), quiet(20 * ms),
							put(single(3)), received(3)}},
	};
	for (const size_t length : {1, 2, 5, 7})
		rows.push_back(
				passed_over("passes_over_a_first_frame_that_is_cut_to_" + number(length), cut(first(20), length)));
	for (unsigned length = 1; length <= 7; length++)
		rows.push_back(passed_over("passes_over_a_first_frame_for_" + number(length) + "_bytes",
				{0x10, static_cast<uint8_t>(length), 1, 2, 3, 4, 5, 6}));
	return rows;
}

static row too_long(std::string name, bytes frame)
{
	return {std::move(name), {},
			{receive(), put(std::move(frame)), see(overflow), receive_fails(ISOTP_BUFFER_OVERFLOW)}};
}

static std::vector<row> too_long_rows()
{
	return {
			too_long("answers_8192_bytes_with_an_overflow", {0x10, 0, 0, 0, 0x20, 0x00, 1, 2}),
			too_long("answers_65536_bytes_with_an_overflow", {0x10, 0, 0, 1, 0, 0, 1, 2}),
			too_long("answers_7FFFFFFF_bytes_with_an_overflow", {0x10, 0, 0x7F, 0xFF, 0xFF, 0xFF, 1, 2}),
			too_long("answers_80000000_bytes_with_an_overflow", {0x10, 0, 0x80, 0, 0, 0, 1, 2}),
			too_long("answers_FFFFFFFF_bytes_with_an_overflow", {0x10, 0, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2}),
			{"passes_over_the_consecutive_frames_of_a_message_that_is_too_long", {},
					{receive(), put({0x10, 0, 0, 0, 0x20, 0x00, 1, 2}), see(overflow),
							receive_fails(ISOTP_BUFFER_OVERFLOW), receive(), put({0x21, 3, 4, 5, 6, 7, 8, 9}),
							put(single(3)), received(3)}},
	};
}

static std::vector<row> malformed_consecutive_rows()
{
	return {
			{"waits_on_after_a_consecutive_frame_that_is_cut_short", {},
					{begun_20(), put(cut(consecutive(20, 1), 7)), quiet(20 * ms), rest_of_20()}},
			{"waits_on_after_a_consecutive_frame_of_nothing_but_its_header", {},
					{begun_20(), put({0x21}), quiet(20 * ms), rest_of_20()}},
			{"waits_on_after_a_last_frame_that_is_cut_short", {},
					{receive(), put(first(15)), see(go_on), put(consecutive(15, 1)), put(cut(consecutive(15, 2), 2)),
							quiet(20 * ms), put(consecutive(15, 2)), received(15)}},
			{"waits_on_after_an_empty_frame", {}, {begun_20(), put(bytes{}), quiet(20 * ms), rest_of_20()}},
			{"takes_a_last_frame_without_padding", {},
					{receive(), put(first(15)), see(go_on), put(consecutive(15, 1)), put(consecutive(15, 2)),
							received(15)}},
			{"takes_a_last_frame_with_any_padding", {},
					{receive(), put(first(15)), see(go_on), put(consecutive(15, 1)),
							put(padded(consecutive(15, 2), 0x2F)), received(15)}},
	};
}

static std::vector<row> malformed_flow_control_rows()
{
	const script begun = {send(20), see(first(20))};
	const script rest = {put(go_on), see_consecutive(20, 1, 2), sent()};
	return {
			{"waits_on_after_a_flow_control_of_1_byte", {}, {begun, put({0x30}), quiet(20 * ms), rest}},
			{"waits_on_after_a_flow_control_of_2_bytes", {}, {begun, put({0x30, 0}), quiet(20 * ms), rest}},
			{"waits_on_after_an_overflow_of_1_byte", {}, {begun, put({0x32}), quiet(20 * ms), rest}},
			{"waits_on_after_an_empty_frame_in_place_of_a_flow_control", {},
					{begun, put(bytes{}), quiet(20 * ms), rest}},
			{"waits_on_after_a_reserved_frame_type_in_place_of_a_flow_control", {},
					{begun, put({0x40, 0, 0}), put({0xF0, 0, 0}), quiet(20 * ms), rest}},
			{"waits_on_after_a_consecutive_frame_in_place_of_a_flow_control", {},
					{begun, put(consecutive(20, 1)), quiet(20 * ms), rest}},
	};
}

std::vector<row> rows_of_malformed_frames()
{
	std::vector<row> rows;
	for (const auto &table : {malformed_single_rows(), malformed_first_rows(), too_long_rows(),
				 malformed_consecutive_rows(), malformed_flow_control_rows()})
		rows.insert(rows.end(), table.begin(), table.end());
	return rows;
}

static bytes with_number(int index, unsigned sequence)
{
	bytes frame = consecutive(62, index);
	frame[0] = static_cast<uint8_t>(0x20 | sequence);
	return frame;
}

static script begun_62()
{
	return {receive(), put(first(62)), see(go_on)};
}

static std::vector<row> wrong_number_rows()
{
	std::vector<row> rows;
	for (unsigned wrong = 0; wrong <= 0x0F; wrong++)
		if (wrong != 1)
			rows.push_back({"ends_at_number_" + number(wrong) + "_in_place_of_1", {},
					{begun_62(), put(with_number(1, wrong)), receive_fails(ISOTP_WRONG_SN)}});
	rows.push_back({"ends_at_a_consecutive_frame_that_comes_twice", {},
			{begun_62(), put(consecutive(62, 1)), put(consecutive(62, 1)), receive_fails(ISOTP_WRONG_SN)}});
	rows.push_back({"ends_at_two_consecutive_frames_that_have_changed_places", {},
			{begun_62(), put(consecutive(62, 1)), put(consecutive(62, 3)), receive_fails(ISOTP_WRONG_SN)}});
	rows.push_back({"ends_at_number_1_in_place_of_0_after_15", {},
			{receive(), put(first(130)), see(go_on), put_consecutive(130, 1, 15), put(consecutive(130, 17)),
					receive_fails(ISOTP_WRONG_SN)}});
	rows.push_back({"ends_at_a_wrong_number_in_the_last_frame", {},
			{begun_62(), put_consecutive(62, 1, 7), put(with_number(8, 9)), receive_fails(ISOTP_WRONG_SN)}});
	rows.push_back({"ends_at_a_wrong_number_after_a_block", {.block_size = 2},
			{receive(), put(first(41)), see(flow(2)), put_consecutive(41, 1, 2), see(flow(2)), put(consecutive(41, 4)),
					receive_fails(ISOTP_WRONG_SN), quiet(20 * ms)}});
	rows.push_back(
			{"counts_on_over_15_and_over_block_borders", {.block_size = 5}, whole_receive(300, {.block_size = 5})});
	rows.push_back({"passes_over_the_rest_after_a_wrong_number", {},
			{begun_62(), put(with_number(1, 2)), receive_fails(ISOTP_WRONG_SN), receive(), put_consecutive(62, 1, 8),
					quiet(20 * ms), put(single(3)), received(3)}});
	return rows;
}

static std::vector<row> unexpected_frame_rows()
{
	return {
			{"passes_over_a_consecutive_frame_without_a_first_one", {},
					{receive(), put_consecutive(20, 1, 2), quiet(20 * ms), put(single(3)), received(3)}},
			{"passes_over_a_consecutive_frame_behind_a_whole_message", {},
					{whole_receive(20), receive(), put(consecutive(27, 3)), put(single(3)), received(3)}},
			{"a_single_frame_takes_the_place_of_the_message_that_it_breaks_into", {},
					{begun_20(), put(consecutive(20, 1)), put(single(3)), received(3), receive(),
							put(consecutive(20, 2)), put(single(4)), received(4)}},
			{"a_first_frame_takes_the_place_of_the_message_that_it_breaks_into", {},
					{begun_20(), put(consecutive(20, 1)), put(first(27)), see(go_on), put_consecutive(27, 1, 3),
							received(27)}},
			{"a_first_frame_that_comes_twice_begins_the_message_anew", {},
					{begun_20(), put(first(20)), see(go_on), rest_of_20()}},
			{"a_first_frame_for_too_much_ends_the_message_that_it_breaks_into", {},
					{begun_20(), put({0x10, 0, 0, 0, 0x20, 0, 1, 2}), see(overflow),
							receive_fails(ISOTP_BUFFER_OVERFLOW)}},
			{"a_malformed_single_frame_does_not_break_into_a_message", {},
					{begun_20(), put({0x00, 1, 2, 3, 4, 5, 6, 7}), put({0x08, 1, 2, 3, 4, 5, 6, 7}), rest_of_20()}},
			{"a_malformed_first_frame_does_not_break_into_a_message", {},
					{begun_20(), put({0x10, 7, 1, 2, 3, 4, 5, 6}), put(cut(first(27), 7)), rest_of_20()}},
			{"a_flow_control_does_not_break_into_a_message", {},
					{begun_20(), put(go_on), put(overflow), put(wait_more), put({0x3F, 0, 0}), rest_of_20()}},
			{"a_reserved_frame_type_does_not_break_into_a_message", {},
					{begun_20(), put({0x41, 1, 2, 3, 4, 5, 6, 7}), put({0xF1, 1, 2, 3, 4, 5, 6, 7}), rest_of_20()}},
			{"two_messages_in_a_row_are_two_answers", {},
					{receive(), put(single(3)), put(single(5)), received(3), receive(), received(5)}},
	};
}

std::vector<row> rows_of_sequence()
{
	std::vector<row> rows = wrong_number_rows();
	for (const row &one : unexpected_frame_rows())
		rows.push_back(one);
	return rows;
}
