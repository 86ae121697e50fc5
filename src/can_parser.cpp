#include "can_parser.h"

#include <algorithm>

#include "logger.h"

namespace
{

constexpr const char module_name[] = "can_parser";

constexpr int32_t frame_length = 8;
constexpr int32_t byte_bits = 8;
constexpr int32_t value_bits = 32;

// Shifts as on the unit's processor, where all bits are gone from 32 places on. A negative count is a large one.
uint32_t shifted_left(uint32_t value, int32_t count)
{
	return static_cast<uint32_t>(count) < value_bits ? value << count : 0;
}

uint32_t shifted_right(uint32_t value, uint8_t count)
{
	return count < value_bits ? value >> count : 0;
}

can_extraction describe_byte(int32_t byte, int32_t bit, int32_t count, int32_t taken)
{
	return {
			.byte_index = byte,
			.mask = static_cast<uint8_t>(shifted_left(0xFF, bit) & ~shifted_left(0xFF, bit + count)),
			.right_shift = static_cast<uint8_t>(bit),
			.left_shift = static_cast<uint32_t>(taken),
	};
}

// A table of bytes in the frame: the start bit is, so only a step back from byte 0 or on from byte 7 leads outside.
bool lies_in_frame(const can_extraction *table)
{
	for (; table->mask != 0; ++table)
		if (table->byte_index < 0 || table->byte_index >= frame_length)
			return false;
	return true;
}

bool build_table(j1939_signal *signal)
{
	bool starts_outside = signal->bitlength != 0 && signal->start_bit >= frame_length * byte_bits;
	return !starts_outside &&
			compute_bit_masks(signal->table, frame_length, static_cast<int32_t>(signal->start_bit), signal->bitlength,
					signal->big_endian) != 0 &&
			lies_in_frame(signal->table);
}

}

int compute_bit_masks(can_extraction *table, int32_t length, int32_t start_bit, uint32_t bit_length, uint8_t big_endian)
{
	if (table == nullptr || bit_length > can_signal_max_bits)
		return 0;

	int64_t position = start_bit;
	int32_t remaining = static_cast<int32_t>(bit_length);
	int32_t taken = 0;
	while (remaining != 0) {
		int32_t byte = static_cast<int32_t>(position / byte_bits);
		int32_t bit = static_cast<int32_t>(position % byte_bits);
		if (byte < 0 && length <= byte) // never so for a frame that has bytes: kept as it is
			return 0;
		int32_t count = std::min(byte_bits - bit, remaining);
		*table++ = describe_byte(byte, bit, count, taken);
		taken += count;
		remaining -= count;
		position = big_endian != 0 ? (static_cast<int64_t>(byte) - 1) * byte_bits : position + count;
	}
	*table = {};
	return 1;
}

uint32_t extract_raw_value(const uint8_t *bytes, const can_extraction *table)
{
	uint32_t value = 0;
	for (; table->mask != 0; ++table) {
		uint32_t bits = shifted_right(bytes[table->byte_index] & uint32_t{table->mask}, table->right_shift);
		value |= shifted_left(bits, static_cast<int32_t>(table->left_shift));
	}
	return value;
}

int decode_signal(j1939_signal *signal, const uint8_t *bytes, double *value)
{
	if (!build_table(signal)) {
		LOG_AT(LOG_ERR, module_name, "Could not compute BitMask\n");
		return -1;
	}
	*value = extract_raw_value(bytes, signal->table) * signal->factor + signal->offset;
	return 0;
}
