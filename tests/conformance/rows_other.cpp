// Rows of timers, of addressing, of both directions at once, and of lost frames.
#include "row.h"

static script begun(size_t length)
{
	return {send(length), see(first(length))};
}

// Ours: N_Bs.
static std::vector<row> sender_timer_rows()
{
	return {
			{"ends_1000_ms_after_a_first_frame_without_flow_control", {},
					{begun(20), send_fails(ISOTP_TIMEOUT_BS, 1000 * ms)}},
			{"ends_1000_ms_after_a_block_without_flow_control", {},
					{begun(27), put(flow(1)), see_consecutive(27, 1, 1), send_fails(ISOTP_TIMEOUT_BS, 1000 * ms)}},
			{"ends_1000_ms_after_a_wait_without_another_flow_control", {},
					{begun(20), put(wait_more, 300 * ms), send_fails(ISOTP_TIMEOUT_BS, 1000 * ms)}},
			{"ends_1000_ms_after_the_last_of_several_waits", {},
					{begun(20), put(wait_more), put(wait_more, 300 * ms), put(wait_more, 300 * ms),
							send_fails(ISOTP_TIMEOUT_BS, 1000 * ms)}},
			{"goes_on_with_a_flow_control_after_500_ms", {},
					{begun(20), put(go_on, 500 * ms), see_consecutive(20, 1, 2), sent()}},
			{"goes_on_with_a_flow_control_500_ms_after_a_block", {},
					{begun(27), put(flow(1)), see_consecutive(27, 1, 1), put(go_on, 500 * ms),
							see_consecutive(27, 2, 3), sent()}},
			{"waits_on_for_1000_ms_with_each_wait", {},
					{begun(20), put(wait_more, 500 * ms), put(wait_more, 500 * ms), put(wait_more, 500 * ms),
							put(go_on, 500 * ms), see_consecutive(20, 1, 2), sent()}},
			{"does_not_wait_longer_for_a_malformed_flow_control", {},
					{begun(20), put({0x30, 0}, 500 * ms), send_fails(ISOTP_TIMEOUT_BS, 500 * ms)}},
			{"does_not_wait_longer_for_other_frames", {},
					{begun(20), put(consecutive(20, 1), 300 * ms), put({0x50, 0, 0}, 200 * ms),
							send_fails(ISOTP_TIMEOUT_BS, 500 * ms)}},
			{"passes_over_a_flow_control_that_comes_too_late", {},
					{begun(20), send_fails(ISOTP_TIMEOUT_BS, 1000 * ms), put(go_on), quiet(50 * ms)}},
			{"takes_a_flow_control_after_995_ms", {.scope = ROW_EXACT},
					{begun(20), put(go_on, 995 * ms), see_consecutive(20, 1, 2), sent()}},
			{"takes_no_flow_control_after_1005_ms", {.scope = ROW_EXACT},
					{begun(20), send_fails(ISOTP_TIMEOUT_BS, 1000 * ms), put(go_on, 5 * ms), quiet(50 * ms)}},
			{"takes_a_flow_control_995_ms_after_a_wait", {.scope = ROW_EXACT},
					{begun(20), put(wait_more, 995 * ms), put(go_on, 995 * ms), see_consecutive(20, 1, 2), sent()}},
	};
}

// Theirs: the receive's own time-out, and N_Cr.
static std::vector<row> receiver_timer_rows()
{
	return {
			{"a_receive_of_0_ms_takes_what_is_not_there_as_no_answer", {},
					{receive(0), receive_fails(OUTCOME_NO_ANSWER)}},
			{"a_receive_ends_without_an_answer_after_100_ms", {},
					{receive(100), receive_fails(OUTCOME_NO_ANSWER, 100 * ms)}},
			{"a_receive_ends_without_an_answer_after_1000_ms", {},
					{receive(1000), receive_fails(OUTCOME_NO_ANSWER, 1000 * ms)}},
			{"a_receive_ends_without_an_answer_after_2000_ms", {},
					{receive(2000), receive_fails(OUTCOME_NO_ANSWER, 2000 * ms)}},
			{"an_answer_after_500_ms_of_1500_is_taken", {}, {receive(1500), put(single(3), 500 * ms), received(3)}},
			{"malformed_frames_do_not_make_a_receive_last_longer", {},
					{receive(600), put({0x00, 1, 2}, 300 * ms), put(consecutive(20, 1)),
							receive_fails(OUTCOME_NO_ANSWER, 300 * ms)}},
			{"frames_of_others_do_not_make_a_receive_last_longer", {},
					{receive(600), put(single(3), 300 * ms, AS_STRANGER), receive_fails(OUTCOME_NO_ANSWER, 300 * ms)}},
			{"the_time_of_a_receive_is_for_the_first_frame_only", {},
					{receive(800), put(first(27), 100 * ms), see(go_on), put_consecutive(27, 1, 3, 500 * ms),
							received(27)}},
			{"ends_1000_ms_after_its_flow_control", {},
					{receive(3000), put(first(20)), see(go_on), receive_fails(ISOTP_TIMEOUT_CR, 1000 * ms)}},
			{"ends_1000_ms_after_its_flow_control_also_when_the_receive_was_for_less", {},
					{receive(400), put(first(20)), see(go_on), receive_fails(ISOTP_TIMEOUT_CR, 1000 * ms)}},
			{"ends_1000_ms_after_a_consecutive_frame", {},
					{receive(3000), put(first(20)), see(go_on), put(consecutive(20, 1), 300 * ms),
							receive_fails(ISOTP_TIMEOUT_CR, 1000 * ms)}},
			{"ends_1000_ms_after_the_flow_control_of_a_block", {.block_size = 1},
					{receive(3000), put(first(20)), see(flow(1)), put(consecutive(20, 1)), see(flow(1)),
							receive_fails(ISOTP_TIMEOUT_CR, 1000 * ms)}},
			{"waits_500_ms_for_a_consecutive_frame", {},
					{receive(), put(first(20)), see(go_on), put(consecutive(20, 1), 500 * ms),
							put(consecutive(20, 2), 500 * ms), received(20)}},
			{"does_not_wait_longer_for_a_malformed_consecutive_frame", {},
					{receive(), put(first(20)), see(go_on), put({0x21, 1, 2}, 500 * ms),
							receive_fails(ISOTP_TIMEOUT_CR, 500 * ms)}},
			{"does_not_wait_longer_for_frames_of_others", {},
					{receive(), put(first(20)), see(go_on), put(consecutive(20, 1), 500 * ms, AS_STRANGER),
							receive_fails(ISOTP_TIMEOUT_CR, 500 * ms)}},
			{"passes_over_a_consecutive_frame_that_comes_too_late", {},
					{receive(), put(first(20)), see(go_on), receive_fails(ISOTP_TIMEOUT_CR, 1000 * ms), receive(),
							put_consecutive(20, 1, 2), quiet(20 * ms), put(single(3)), received(3)}},
			{"an_answer_that_comes_too_late_is_not_that_of_the_next_request", {},
					{receive(100), receive_fails(OUTCOME_NO_ANSWER, 100 * ms), put(single(5)), quiet(200 * ms),
							whole_send(2), receive(), put(single(3)), received(3)}},
			{"takes_a_consecutive_frame_after_995_ms", {.scope = ROW_EXACT},
					{receive(), put(first(20)), see(go_on), put_consecutive(20, 1, 1),
							put(consecutive(20, 2), 995 * ms), received(20)}},
			{"takes_no_consecutive_frame_after_1005_ms", {.scope = ROW_EXACT},
					{receive(), put(first(20)), see(go_on), receive_fails(ISOTP_TIMEOUT_CR, 1000 * ms), receive(),
							put(consecutive(20, 1), 5 * ms), put(consecutive(20, 2)), quiet(20 * ms), put(single(3)),
							received(3)}},
			{"takes_an_answer_after_195_ms_of_200", {.scope = ROW_EXACT},
					{receive(200), put(single(3), 195 * ms), received(3)}},
			{"takes_a_first_frame_after_195_ms_of_200", {.scope = ROW_EXACT},
					{receive(200), put(first(20), 195 * ms), see(go_on), put_consecutive(20, 1, 2, 100 * ms),
							received(20)}},
	};
}

// N_As and N_Ar: a frame of ours that does not get onto the bus.
static std::vector<row> stopped_bus_rows()
{
	const row_settings pure = {.scope = ROW_PURE};
	return {
			{"ends_when_a_single_frame_does_not_get_onto_the_bus_within_1000_ms", pure,
					{stop_bus(), send(3), send_fails(ISOTP_TIMEOUT_A, 1000 * ms), start_bus(), quiet(50 * ms)}},
			{"sends_a_single_frame_that_gets_onto_the_bus_after_999_ms", pure,
					{stop_bus(), send(3), quiet(999 * ms), start_bus(), see(single(3)), sent()}},
			{"ends_when_a_first_frame_does_not_get_onto_the_bus", pure,
					{stop_bus(), send(20), send_fails(ISOTP_TIMEOUT_A, 1000 * ms), start_bus(), quiet(50 * ms)}},
			{"ends_when_a_consecutive_frame_does_not_get_onto_the_bus", pure,
					{begun(20), stop_bus(), put(go_on), send_fails(ISOTP_TIMEOUT_A, 1000 * ms), start_bus(),
							quiet(50 * ms)}},
			{"ends_when_a_frame_does_not_get_onto_the_bus_however_many_flow_controls_are_asked_for", pure,
					{begun(20), stop_bus(), put(first(15)), put(go_on), put(first(15), 400 * ms),
							put(first(15), 400 * ms), send_fails(ISOTP_TIMEOUT_A, 200 * ms), start_bus(),
							quiet(50 * ms)}},
			{"ends_when_a_flow_control_does_not_get_onto_the_bus", pure,
					{stop_bus(), receive(3000), put(first(20)), receive_fails(ISOTP_TIMEOUT_A, 1000 * ms), start_bus(),
							quiet(50 * ms)}},
			{"gives_an_overflow_up_that_does_not_get_onto_the_bus", pure,
					{stop_bus(), receive(3000), put({0x10, 0, 0, 0, 0x20, 0, 1, 2}),
							receive_fails(ISOTP_BUFFER_OVERFLOW), receive(1500),
							receive_fails(OUTCOME_NO_ANSWER, 1500 * ms), start_bus(), quiet(50 * ms)}},
			{"waits_for_flow_control_from_the_moment_that_its_frame_is_on_the_bus", pure,
					{stop_bus(), send(20), quiet(900 * ms), start_bus(), see(first(20)),
							send_fails(ISOTP_TIMEOUT_BS, 1000 * ms)}},
	};
}

std::vector<row> rows_of_timers()
{
	std::vector<row> rows;
	for (const auto &table : {sender_timer_rows(), receiver_timer_rows(), stopped_bus_rows()})
		rows.insert(rows.end(), table.begin(), table.end());
	return rows;
}

static script both_ways(const row_settings &settings = {})
{
	return {whole_send(3), whole_receive(3, settings), whole_send(20), whole_receive(20, settings)};
}

static std::vector<row> identifier_rows()
{
	const row_settings extended = {.is_extended = true};
	return {
			{"works_with_identifiers_of_29_bits", extended, both_ways()},
			{"works_with_29_bits_and_4095_bytes", extended, {whole_send(4095), whole_receive(4095)}},
			{"works_with_29_bits_and_8191_bytes", extended, {whole_send(8191), whole_receive(8191)}},
			{"works_with_29_bits_block_size_and_separation_time",
					{.is_extended = true, .block_size = 4, .st_min = 0x05},
					{whole_send(62, 4, 0x05), whole_receive(62, {.block_size = 4, .st_min = 0x05})}},
			{"works_with_the_identifiers_of_a_vehicle", {.our_id = 0x7E0, .their_id = 0x7E8}, both_ways()},
			{"works_with_the_lowest_identifiers", {.our_id = 0x001, .their_id = 0x002}, both_ways()},
			{"works_with_the_highest_identifiers_of_11_bits", {.our_id = 0x7FF, .their_id = 0x7FE}, both_ways()},
			{"works_with_the_lowest_identifiers_of_29_bits", {.is_extended = true, .our_id = 0x800, .their_id = 0x801},
					both_ways()},
			{"works_with_the_highest_identifiers_of_29_bits",
					{.is_extended = true, .our_id = 0x1FFFFFFF, .their_id = 0x1FFFFFFE}, both_ways()},
			{"works_with_fixed_normal_addresses", {.is_extended = true, .our_id = 0x18DA10F1, .their_id = 0x18DAF110},
					both_ways()},
			{"works_with_11_bits_one_way_and_29_the_other", {.our_id = 0x7E1, .their_id = 0x18DAF111}, both_ways()},
	};
}

static std::vector<row> foreign_rows()
{
	std::vector<row> rows;
	for (const bool is_extended : {false, true}) {
		const std::string width = is_extended ? "_of_29_bits" : "_of_11_bits";
		const row_settings settings = {.is_extended = is_extended};
		rows.push_back({"passes_over_a_message_of_another_identifier" + width, settings,
				{receive(), put(single(5), 0, AS_STRANGER), put(first(20), 0, AS_STRANGER), quiet(20 * ms),
						put(single(3)), received(3)}});
		rows.push_back({"passes_over_a_message_of_its_own_identifier" + width, settings,
				{receive(), put(single(5), 0, AS_US), quiet(20 * ms), put(single(3)), received(3)}});
		rows.push_back({"passes_over_a_flow_control_of_another_identifier" + width, settings,
				{begun(20), put(overflow, 0, AS_STRANGER), put(go_on, 0, AS_STRANGER), quiet(20 * ms), put(go_on),
						see_consecutive(20, 1, 2), sent()}});
		rows.push_back({"passes_over_consecutive_frames_of_another_identifier" + width, settings,
				{receive(), put(first(20)), see(go_on), put(consecutive(20, 1)), put({0x2F, 1, 2}, 0, AS_STRANGER),
						put(consecutive(20, 2), 0, AS_STRANGER), put(consecutive(20, 2)), received(20)}});
	}
	rows.push_back({"passes_over_29_bits_of_the_same_number", {},
			{receive(), put(single(5), 0, AS_OTHER_FORMAT), quiet(20 * ms), put(single(3)), received(3)}});
	rows.push_back({"passes_over_a_flow_control_of_29_bits_of_the_same_number", {},
			{begun(20), put(overflow, 0, AS_OTHER_FORMAT), quiet(20 * ms), put(go_on), see_consecutive(20, 1, 2),
					sent()}});
	rows.push_back({"passes_over_a_consecutive_frame_of_29_bits_of_the_same_number", {},
			{receive(), put(first(20)), see(go_on), put(consecutive(20, 1), 0, AS_OTHER_FORMAT), quiet(20 * ms),
					put_consecutive(20, 1, 2), received(20)}});
	return rows;
}

static std::vector<row> functional_rows()
{
	const row_settings functional = {.is_functional = true};
	const row_settings wide = {.is_extended = true, .is_functional = true};
	return {
			{"sends_1_byte_to_all", functional, whole_send(1)},
			{"sends_7_bytes_to_all", functional, whole_send(7)},
			{"sends_7_bytes_to_all_with_29_bits", wide, whole_send(7)},
			{"refuses_to_send_8_bytes_to_all", functional, {send(8), send_fails(OUTCOME_REFUSED), quiet(20 * ms)}},
			{"refuses_to_send_4096_bytes_to_all", functional,
					{send(4096), send_fails(OUTCOME_REFUSED), quiet(20 * ms)}},
			{"refuses_to_send_8_bytes_to_all_with_29_bits", wide,
					{send(8), send_fails(OUTCOME_REFUSED), quiet(20 * ms)}},
			{"receives_nothing_without_an_identifier", functional,
					{whole_send(2), put(single(3)), receive(1000), receive_fails(OUTCOME_REFUSED)}},
	};
}

std::vector<row> rows_of_addressing()
{
	std::vector<row> rows;
	for (const auto &table : {identifier_rows(), foreign_rows(), functional_rows()})
		rows.insert(rows.end(), table.begin(), table.end());
	return rows;
}

std::vector<row> rows_of_both_directions()
{
	return {
			{"keeps_a_single_frame_that_comes_before_a_flow_control", {},
					{begun(20), put(single(3)), put(go_on), see_consecutive(20, 1, 2), sent(), receive(), received(3)}},
			{"keeps_a_single_frame_that_comes_inside_a_block", {},
					{begun(20), put(flow(0, 0x64)), see_consecutive(20, 1, 1), put(single(3)),
							see(consecutive(20, 2), 100 * ms), sent(), receive(), received(3)}},
			{"keeps_a_message_in_segments_that_comes_before_a_flow_control", {},
					{begun(20), put(first(15)), see(go_on), put_consecutive(15, 1, 2), put(go_on),
							see_consecutive(20, 1, 2), sent(), receive(), received(15)}},
			{"drops_with_the_next_send_a_message_that_nobody_has_received", {},
					{begun(20), put(single(3)), put(go_on), see_consecutive(20, 1, 2), sent(), whole_send(2), receive(),
							put(single(4)), received(4)}},
			{"keeps_several_messages_that_come_before_a_flow_control", {},
					{begun(20), put(single(3)), put(single(4)), put(single(5)), put(go_on), see_consecutive(20, 1, 2),
							sent(), receive(), received(3), receive(), received(4), receive(), received(5)}},
			{"sends_while_another_call_receives", {},
					{receive(3000), whole_send(20), put(first(15)), see(go_on), put_consecutive(15, 1, 2),
							received(15)}},
			{"receives_while_another_call_sends", {},
					{begun(20), receive(3000), put(first(15)), see(go_on), put(consecutive(15, 1)), put(go_on),
							see_consecutive(20, 1, 2), sent(), put(consecutive(15, 2)), received(15)}},
			{"a_failed_send_leaves_a_reception_alone", {},
					{begun(20), receive(3000), put(first(15)), see(go_on), put(overflow),
							send_fails(ISOTP_BUFFER_OVERFLOW), put_consecutive(15, 1, 2), received(15)}},
			{"a_failed_reception_leaves_a_send_alone", {},
					{begun(20), receive(3000), quiet(100 * ms), put(first(27)), see(go_on), put(consecutive(27, 2)),
							receive_fails(ISOTP_WRONG_SN), put(go_on), see_consecutive(20, 1, 2), sent()}},
			{"a_send_drops_the_message_that_has_come_before_it", {},
					{receive(3000), put(first(20)), see(go_on), whole_send(3), put_consecutive(20, 1, 2),
							quiet(20 * ms), put(single(4)), received(4)}},
			{"a_send_drops_the_single_frame_that_has_come_before_it", {},
					{put(single(5)), quiet(200 * ms), whole_send(3), receive(), put(single(4)), received(4)}},
			{"a_send_sets_the_time_of_a_receive_anew_with_the_message_that_it_drops", {},
					{receive(600), put(first(20), 300 * ms), see(go_on), whole_send(3),
							receive_fails(OUTCOME_NO_ANSWER, 600 * ms)}},
	};
}

// What a lost frame of each kind does: the sender's or the receiver's timer, or the sequence number, tells of it.
std::vector<row> rows_of_losses()
{
	std::vector<row> rows = {
			{"their_single_frame_is_lost", {},
					{whole_send(2), receive(500), receive_fails(OUTCOME_NO_ANSWER, 500 * ms)}},
			{"their_first_frame_is_lost", {},
					{whole_send(2), receive(500), put_consecutive(20, 1, 2),
							receive_fails(OUTCOME_NO_ANSWER, 500 * ms)}},
			{"our_first_frame_or_their_flow_control_is_lost", {}, {begun(62), send_fails(ISOTP_TIMEOUT_BS, 1000 * ms)}},
			{"their_second_flow_control_is_lost", {},
					{begun(62), put(flow(2)), see_consecutive(62, 1, 2), send_fails(ISOTP_TIMEOUT_BS, 1000 * ms)}},
			{"their_last_flow_control_is_lost", {},
					{begun(62), put(flow(7)), see_consecutive(62, 1, 7), send_fails(ISOTP_TIMEOUT_BS, 1000 * ms)}},
			{"our_flow_control_is_lost", {},
					{receive(3000), put(first(62)), see(go_on), receive_fails(ISOTP_TIMEOUT_CR, 1000 * ms)}},
			{"our_flow_control_is_lost_and_their_first_frame_comes_again", {},
					{receive(3000), put(first(62)), see(go_on), put(first(62), 500 * ms), see(go_on),
							put_consecutive(62, 1, 8), received(62)}},
	};
	for (int lost = 1; lost <= 7; lost++) {
		const script before = lost > 1 ? put_consecutive(62, 1, lost - 1) : script{};
		rows.push_back({"their_consecutive_frame_" + std::to_string(lost) + "_of_8_is_lost", {},
				{receive(3000), put(first(62)), see(go_on), before, put(consecutive(62, lost + 1)),
						receive_fails(ISOTP_WRONG_SN)}});
	}
	rows.push_back({"their_last_consecutive_frame_is_lost", {},
			{receive(3000), put(first(62)), see(go_on), put_consecutive(62, 1, 7),
					receive_fails(ISOTP_TIMEOUT_CR, 1000 * ms)}});
	rows.push_back({"all_of_a_block_is_lost_but_its_first_frame", {.block_size = 4},
			{receive(3000), put(first(62)), see(flow(4)), put(consecutive(62, 1)), put(consecutive(62, 5)),
					receive_fails(ISOTP_WRONG_SN)}});
	return rows;
}
