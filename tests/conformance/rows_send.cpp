// Rows in which we send: every frame type and length, and every flow status that may answer.
#include "row.h"

static std::string number(size_t value)
{
	return std::to_string(value);
}

static std::string hex(unsigned value)
{
	static const char digits[] = "0123456789ABCDEF";
	return {digits[value >> 4 & 0x0F], digits[value & 0x0F]};
}

// What is said in so many digits here keeps the helpers of the other rows honest.
static std::vector<row> literal_rows()
{
	const bytes alphabet_first = {0x10, 0x0D, 1, 32, 63, 94, 125, 156};
	return {
			{"sends_1_byte_in_a_single_frame", {},
					{send(1), see({0x01, 1, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}), sent()}},
			{"sends_7_bytes_in_a_single_frame", {}, {send(7), see({0x07, 1, 32, 63, 94, 125, 156, 187}), sent()}},
			{"sends_8_bytes_in_a_first_and_a_consecutive_frame", {},
					{send(8), see({0x10, 0x08, 1, 32, 63, 94, 125, 156}), put({0x30, 0x00, 0x00}),
							see({0x21, 187, 218, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}), sent()}},
			{"fills_the_last_consecutive_frame_of_13_bytes", {},
					{send(13), see(alphabet_first), put({0x30, 0x00, 0x00}),
							see({0x21, 187, 218, 249, 29, 60, 91, 122}), sent()}},
			{"tells_a_length_of_4095_in_12_bits", {},
					{send(4095), see({0x1F, 0xFF, 1, 32, 63, 94, 125, 156}), put(go_on), see_consecutive(4095, 1, 585),
							sent()}},
			{"tells_a_length_of_4096_in_32_bits", {},
					{send(4096), see({0x10, 0x00, 0x00, 0x00, 0x10, 0x00, 1, 32}), put(go_on),
							see_consecutive(4096, 1, 585), sent()}},
			{"tells_a_length_of_8191_in_32_bits", {},
					{send(8191), see({0x10, 0x00, 0x00, 0x00, 0x1F, 0xFF, 1, 32}), put(go_on),
							see_consecutive(8191, 1, 1170), sent()}},
	};
}

static std::vector<row> refused_rows()
{
	return {
			{"refuses_to_send_nothing", {}, {send(0), send_fails(OUTCOME_REFUSED), quiet(20 * ms)}},
			{"refuses_to_send_8192_bytes", {}, {send(8192), send_fails(OUTCOME_REFUSED), quiet(20 * ms)}},
			{"refuses_to_send_65536_bytes", {}, {send(65536), send_fails(OUTCOME_REFUSED), quiet(20 * ms)}},
	};
}

std::vector<row> rows_of_sending()
{
	std::vector<row> rows = literal_rows();
	for (const size_t length : {2, 3, 4, 5, 6})
		rows.push_back({"sends_" + number(length) + "_bytes_in_a_single_frame", {}, whole_send(length)});
	for (const size_t length : {9, 12, 14, 20, 62, 111, 118, 4094, 8190})
		rows.push_back({"sends_" + number(length) + "_bytes_in_segments", {}, whole_send(length)});
	for (const uint8_t padding : bytes{0x00, 0x55, 0xAA, 0xFF}) {
		rows.push_back({"pads_a_single_frame_with_" + hex(padding), {.padding = padding}, whole_send(3)});
		rows.push_back({"pads_the_last_frame_with_" + hex(padding), {.padding = padding}, whole_send(15)});
	}
	rows.push_back({"pads_a_flow_control_with_55", {.padding = 0x55}, whole_receive(20)});
	for (const row &one : refused_rows())
		rows.push_back(one);
	return rows;
}

static script begun(size_t length)
{
	return {send(length), see(first(length))};
}

static std::vector<row> block_size_rows()
{
	std::vector<row> rows;
	for (const int size : {1, 2, 3, 8, 15, 16, 255})
		rows.push_back({"obeys_a_block_size_of_" + number(static_cast<size_t>(size)), {},
				whole_send(size == 255 ? 6 + 7 * 300 : 6 + 7 * 33, static_cast<uint8_t>(size))});
	rows.push_back({"waits_after_a_block_of_2", {},
			{begun(41), put(flow(2)), see_consecutive(41, 1, 2), quiet(100 * ms), put(flow(2)),
					see_consecutive(41, 3, 4), quiet(100 * ms), put(flow(2)), see_consecutive(41, 5, 5), sent()}});
	rows.push_back({"wants_no_flow_control_after_the_last_block", {},
			{begun(20), put(flow(2)), see_consecutive(20, 1, 2), sent(), quiet(50 * ms)}});
	rows.push_back({"takes_a_new_block_size_with_each_flow_control", {},
			{begun(55), put(flow(1)), see_consecutive(55, 1, 1), quiet(20 * ms), put(flow(3)),
					see_consecutive(55, 2, 4), quiet(20 * ms), put(flow(0)), see_consecutive(55, 5, 7), sent()}});
	return rows;
}

static std::vector<row> separation_rows()
{
	std::vector<row> rows;
	for (const unsigned st_min : {0x01u, 0x02u, 0x05u, 0x0Au, 0x14u, 0x32u, 0x64u, 0x7Fu, 0xF1u, 0xF2u, 0xF5u, 0xF9u})
		rows.push_back(
				{"keeps_a_separation_time_of_" + hex(st_min), {}, whole_send(41, 0, static_cast<uint8_t>(st_min))});
	for (const unsigned st_min : {0x80u, 0x81u, 0xC0u, 0xF0u, 0xFAu, 0xFFu})
		rows.push_back({"keeps_127_ms_for_the_reserved_separation_time_" + hex(st_min), {},
				{begun(27), put(flow(0, static_cast<uint8_t>(st_min))), see_consecutive(27, 1, 3, 127 * ms), sent()}});
	rows.push_back({"keeps_7F_over_62_bytes", {}, whole_send(62, 0, 0x7F)});
	rows.push_back({"takes_a_new_separation_time_with_each_flow_control", {},
			{begun(48), put(flow(2, 0x32)), see_consecutive(48, 1, 2, 50 * ms), put(flow(2, 0)),
					see_consecutive(48, 3, 4), put(flow(2, 0x64)), see_consecutive(48, 5, 6, 100 * ms), sent()}});
	rows.push_back({"keeps_no_separation_before_the_first_frame_of_a_block", {},
			{begun(27), put(flow(1, 0x7F)), see_consecutive(27, 1, 1), put(flow(1, 0x7F)), see_consecutive(27, 2, 2),
					put(flow(1, 0x7F)), see_consecutive(27, 3, 3), sent()}});
	return rows;
}

static script waits(int count)
{
	script result{};
	for (int i = 0; i < count; i++)
		result = {result, put(wait_more)};
	return result;
}

static std::vector<row> wait_rows()
{
	return {
			{"puts_up_with_1_wait", {},
					{begun(20), waits(1), quiet(50 * ms), put(go_on), see_consecutive(20, 1, 2), sent()}},
			{"puts_up_with_16_waits", {},
					{begun(20), waits(16), quiet(50 * ms), put(go_on), see_consecutive(20, 1, 2), sent()}},
			{"ends_at_the_17th_wait", {}, {begun(20), waits(17), send_fails(ISOTP_WFT_OVERRUN), quiet(50 * ms)}},
			{"puts_up_with_16_waits_after_a_block", {},
					{begun(27), put(flow(1)), see_consecutive(27, 1, 1), waits(16), quiet(20 * ms), put(go_on),
							see_consecutive(27, 2, 3), sent()}},
			{"ends_at_the_17th_wait_after_a_block", {},
					{begun(27), put(flow(1)), see_consecutive(27, 1, 1), waits(17), send_fails(ISOTP_WFT_OVERRUN),
							quiet(20 * ms)}},
			{"counts_waits_anew_after_a_go_on", {},
					{begun(27), waits(16), put(flow(1)), see_consecutive(27, 1, 1), waits(16), put(go_on),
							see_consecutive(27, 2, 3), sent()}},
			{"takes_no_block_size_from_a_wait", {},
					{begun(27), put({0x31, 1, 0x7F}), put(go_on), see_consecutive(27, 1, 3), sent()}},
	};
}

static std::vector<row> ending_rows()
{
	std::vector<row> rows = {
			{"ends_at_an_overflow", {}, {begun(20), put(overflow), send_fails(ISOTP_BUFFER_OVERFLOW), quiet(50 * ms)}},
			{"ends_at_an_overflow_after_a_wait", {},
					{begun(20), put(wait_more), put(overflow), send_fails(ISOTP_BUFFER_OVERFLOW), quiet(50 * ms)}},
			{"ends_at_an_overflow_after_a_block", {},
					{begun(27), put(flow(1)), see_consecutive(27, 1, 1), put(overflow),
							send_fails(ISOTP_BUFFER_OVERFLOW), quiet(50 * ms)}},
			{"ends_at_an_overflow_of_a_length_in_32_bits", {},
					{begun(4096), put(overflow), send_fails(ISOTP_BUFFER_OVERFLOW), quiet(50 * ms)}},
			{"ends_at_a_reserved_flow_status_after_a_block", {},
					{begun(27), put(flow(1)), see_consecutive(27, 1, 1), put({0x33, 0, 0}),
							send_fails(ISOTP_INVALID_FS), quiet(50 * ms)}},
	};
	for (unsigned status = 3; status <= 0x0F; status++)
		rows.push_back({"ends_at_the_reserved_flow_status_" + hex(status).substr(1), {},
				{begun(20), put({static_cast<uint8_t>(0x30 | status), 0, 0}), send_fails(ISOTP_INVALID_FS),
						quiet(20 * ms)}});
	return rows;
}

static std::vector<row> flow_at_a_wrong_time_rows()
{
	return {
			{"passes_over_a_flow_control_before_a_send", {},
					{put(overflow), quiet(200 * ms), begun(20), quiet(20 * ms), put(go_on), see_consecutive(20, 1, 2),
							sent()}},
			{"passes_over_a_go_on_inside_a_block", {},
					{begun(20), put(flow(0, 0x64)), see_consecutive(20, 1, 1), put(go_on), quiet(20 * ms),
							see(consecutive(20, 2), 80 * ms), sent()}},
			{"passes_over_an_overflow_inside_a_block", {},
					{begun(20), put(flow(0, 0x64)), see_consecutive(20, 1, 1), put(overflow), quiet(20 * ms),
							see(consecutive(20, 2), 80 * ms), sent()}},
			{"passes_over_a_wait_inside_a_block", {},
					{begun(20), put(flow(0, 0x64)), see_consecutive(20, 1, 1), put(wait_more), quiet(20 * ms),
							see(consecutive(20, 2), 80 * ms), sent()}},
			{"passes_over_a_flow_control_after_the_last_frame", {},
					{whole_send(20), put(overflow), put(go_on), quiet(20 * ms)}},
			{"takes_a_flow_control_without_padding", {},
					{begun(20), put({0x30, 1, 0}), see_consecutive(20, 1, 1), put({0x30, 0, 0}),
							see_consecutive(20, 2, 2), sent()}},
			{"takes_a_flow_control_with_padding", {},
					{begun(20), put({0x30, 0, 0, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA}), see_consecutive(20, 1, 2), sent()}},
	};
}

std::vector<row> rows_of_flow_status()
{
	std::vector<row> rows;
	for (const auto &table :
			{block_size_rows(), separation_rows(), wait_rows(), ending_rows(), flow_at_a_wrong_time_rows()})
		rows.insert(rows.end(), table.begin(), table.end());
	return rows;
}
