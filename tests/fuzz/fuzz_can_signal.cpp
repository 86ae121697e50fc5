// Signals out of a CAN frame: 8 bytes of frame, then either a request's j1939 object as JSON, or signals of 14 bytes
// each (start bit, length, factor, byte order, offset). Every value is compared with one that is put together bit by
// bit.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "can_parser.h"
#include "movra_fleet/diagnostic_execution/j1939_settings.h"

namespace
{

constexpr size_t frame_size = 8;

// The raw value bit by bit; false when a bit lies outside of the frame or there are too many.
bool expected_raw(const j1939_signal *signal, const uint8_t *frame, uint32_t *raw)
{
	*raw = 0;
	if (signal->bitlength > can_signal_max_bits)
		return false;
	int64_t position = signal->start_bit;
	for (uint32_t i = 0; i < signal->bitlength; ++i) {
		if (position < 0 || position >= static_cast<int64_t>(frame_size * 8))
			return false;
		*raw |= ((frame[position / 8] >> (position % 8)) & 1u) << i;
		bool steps_back = signal->big_endian != 0 && position % 8 == 7;
		position = steps_back ? (position / 8 - 1) * 8 : position + 1;
	}
	return true;
}

void check(j1939_signal *signal, const uint8_t *frame)
{
	uint32_t raw = 0;
	double value = 0;
	bool inside = expected_raw(signal, frame, &raw);
	bool decoded = decode_signal(signal, frame, &value) == 0;
	if (decoded != inside || (decoded && value != raw * signal->factor + signal->offset))
		abort();

	can_extraction table[can_extraction_count];
	(void)compute_bit_masks(table, 8, static_cast<int32_t>(signal->start_bit), signal->bitlength, signal->big_endian);
}

void check_request(const std::string &text, const uint8_t *frame)
{
	json_object *object = json_tokener_parse(text.c_str());
	j1939_settings *settings = parse_j1939_settings(object);
	for (j1939_signal *signal = settings != nullptr ? settings->signals : nullptr; signal != nullptr;
			signal = signal->next)
		check(signal, frame);
	free_j1939_settings(settings);
	json_object_put(object);
}

void check_records(const uint8_t *data, size_t size, const uint8_t *frame)
{
	constexpr size_t record_size = 14;
	for (; size >= record_size; data += record_size, size -= record_size) {
		j1939_signal signal = {};
		memcpy(&signal.start_bit, data, 4);
		memcpy(&signal.bitlength, data + 4, 4);
		signal.factor = data[8];
		signal.big_endian = data[9];
		memcpy(&signal.offset, data + 10, 4);
		check(&signal, frame);
	}
}

}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static const bool quiet = freopen("/dev/null", "w", stdout) != nullptr;
	if (!quiet)
		abort();
	if (size < frame_size)
		return 0;
	if (size > frame_size && data[frame_size] == '{')
		check_request(std::string(reinterpret_cast<const char *>(data) + frame_size, size - frame_size), data);
	else
		check_records(data + frame_size, size - frame_size, data);
	return 0;
}
