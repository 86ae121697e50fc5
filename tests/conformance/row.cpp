#include "row.h"

#include <utility>

static constexpr size_t single_max = 7;
static constexpr size_t short_first_max = 4095;

bytes pdu_of(size_t length)
{
	bytes pdu(length);
	for (size_t i = 0; i < length; i++)
		pdu[i] = static_cast<uint8_t>((i * 31 + i / 251 + 1) % 251);
	return pdu;
}

// A header and the bytes of a PDU behind it, as many as there are up to 8.
static bytes frame_of(bytes header, size_t length, size_t offset)
{
	const bytes pdu = pdu_of(length);
	while (header.size() < 8 && offset < length)
		header.push_back(pdu[offset++]);
	return header;
}

static size_t first_count(size_t length)
{
	return length <= short_first_max ? 6 : 2;
}

bytes single(size_t length)
{
	return frame_of({static_cast<uint8_t>(length)}, length, 0);
}

bytes first(size_t length)
{
	if (length <= short_first_max)
		return frame_of({static_cast<uint8_t>(0x10 | length >> 8), static_cast<uint8_t>(length)}, length, 0);
	return frame_of({0x10, 0, static_cast<uint8_t>(length >> 24), static_cast<uint8_t>(length >> 16),
							static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)},
			length, 0);
}

bytes consecutive(size_t length, int index)
{
	const size_t offset = first_count(length) + 7 * static_cast<size_t>(index - 1);
	return frame_of({static_cast<uint8_t>(0x20 | (index & 0x0F))}, length, offset);
}

int consecutive_count(size_t length)
{
	return length <= single_max ? 0 : static_cast<int>((length - first_count(length) + 6) / 7);
}

bytes flow(uint8_t block_size, uint8_t st_min)
{
	return {0x30, block_size, st_min};
}

step send(size_t length)
{
	return {STEP_SEND, 0, pdu_of(length), 0, AS_THEM};
}

step receive(int64_t timeout_ms)
{
	return {STEP_RECEIVE, timeout_ms * ms, {}, 0, AS_THEM};
}

step sent(int64_t us)
{
	return send_fails(ISOTP_OK, us);
}

step send_fails(int outcome, int64_t us)
{
	return {STEP_SENT, us, {}, outcome, AS_THEM};
}

step received(size_t length, int64_t us)
{
	return {STEP_RECEIVED, us, pdu_of(length), ISOTP_OK, AS_THEM};
}

step received_bytes(bytes pdu)
{
	return {STEP_RECEIVED, 0, std::move(pdu), ISOTP_OK, AS_THEM};
}

step receive_fails(int outcome, int64_t us)
{
	return {STEP_RECEIVED, us, {}, outcome, AS_THEM};
}

step put(bytes frame, int64_t us, put_as who)
{
	return {STEP_PUT, us, std::move(frame), 0, who};
}

step see(bytes frame, int64_t us)
{
	return {STEP_SEE, us, std::move(frame), 0, AS_THEM};
}

step quiet(int64_t us)
{
	return {STEP_QUIET, us, {}, 0, AS_THEM};
}

step stop_bus()
{
	return {STEP_STOP_BUS, 0, {}, 0, AS_THEM};
}

step start_bus()
{
	return {STEP_START_BUS, 0, {}, 0, AS_THEM};
}

static script many_consecutive(step_kind kind, size_t length, int from, int to, int64_t gap_us)
{
	script result{};
	for (int i = from; i <= to; i++)
		result.steps.push_back({kind, i == from ? 0 : gap_us, consecutive(length, i), 0, AS_THEM});
	return result;
}

script see_consecutive(size_t length, int from, int to, int64_t gap_us)
{
	return many_consecutive(STEP_SEE, length, from, to, gap_us);
}

script put_consecutive(size_t length, int from, int to, int64_t gap_us)
{
	return many_consecutive(STEP_PUT, length, from, to, gap_us);
}

// Calls block(from, to) for each block of a PDU's consecutive frames.
template <typename what>
static void for_each_block(size_t length, uint8_t block_size, const what &block)
{
	const int count = consecutive_count(length);
	const int step_count = block_size == 0 ? count : block_size;
	for (int from = 1; from <= count; from += step_count)
		block(from, from + step_count - 1 < count ? from + step_count - 1 : count);
}

script whole_send(size_t length, uint8_t block_size, uint8_t st_min)
{
	if (length <= single_max)
		return {send(length), see(single(length)), sent()};
	script result{send(length), see(first(length))};
	for_each_block(length, block_size, [&](int from, int to) {
		const int64_t gap_us = isotp_st_min_us(st_min);
		result = {result, put(flow(block_size, st_min)), see_consecutive(length, from, to, gap_us)};
	});
	return {result, sent()};
}

script whole_receive(size_t length, const row_settings &settings)
{
	if (length <= single_max)
		return {receive(), put(single(length)), received(length)};
	script result{receive(), put(first(length))};
	for_each_block(length, settings.block_size, [&](int from, int to) {
		result = {result, see(flow(settings.block_size, settings.st_min)), put_consecutive(length, from, to)};
	});
	return {result, received(length)};
}

const std::vector<row> &conformance_rows()
{
	static const std::vector<row> rows = [] {
		std::vector<row> all;
		for (const auto &table : {rows_of_sending(), rows_of_flow_status(), rows_of_receiving(),
					 rows_of_malformed_frames(), rows_of_sequence(), rows_of_timers(), rows_of_addressing(),
					 rows_of_both_directions(), rows_of_losses()})
			all.insert(all.end(), table.begin(), table.end());
		return all;
	}();
	return rows;
}
