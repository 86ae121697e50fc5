// Signals in the data bytes of a CAN frame. No state; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

inline constexpr uint32_t can_signal_max_bits = 32;

// The part of a signal that lies in one byte of the frame.
struct can_extraction {
	int32_t byte_index;
	uint8_t mask;        // bits of that byte that belong to the signal; 0 ends a table
	uint8_t right_shift; // position of the mask's lowest bit within the byte
	uint32_t left_shift; // position of these bits within the raw value
};

// 32 bits that do not begin at a byte's border touch five bytes; the sixth entry is the end.
inline constexpr size_t can_extraction_count = 6;

// One signal of a frame: physical value = raw value × factor + offset.
struct j1939_signal {
	char *name; // owned by whoever built the record
	uint32_t start_bit;
	uint8_t big_endian; // the signal goes on in the byte before, not in the one after
	uint32_t bitlength;
	double factor;
	int32_t offset;
	can_extraction table[can_extraction_count];
	j1939_signal *next;
};

static_assert(std::is_trivially_copyable_v<j1939_signal>);

// Builds the table of a signal, of can_extraction_count entries. 1, or 0 when the signal cannot be described. Bytes
// outside of the frame are described like any other: decode_signal refuses them.
int compute_bit_masks(
		can_extraction *table, int32_t frame_length, int32_t start_bit, uint32_t bit_length, uint8_t big_endian);

// The raw value of a signal in the bytes that its table names.
uint32_t extract_raw_value(const uint8_t *bytes, const can_extraction *table);

// Decodes a signal from the 8 data bytes of a frame; its table is built on the way. 0 with the physical value, or -1,
// logged, for a signal of more than 32 bits or with bits outside of the frame.
int decode_signal(j1939_signal *signal, const uint8_t *bytes, double *value);
