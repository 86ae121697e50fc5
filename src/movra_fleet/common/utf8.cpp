#include "movra_fleet/common/utf8.h"

#include "movra_fleet/common/agent_log.h"

namespace
{

// The sequences that begin with one range of first bytes: how many bytes follow, and the range of the first of them.
// The others are 80..BF.
struct sequence {
	uint8_t first_low, first_high;
	uint32_t following;
	uint8_t second_low, second_high;
};

constexpr sequence sequences[] = {
		{0x09, 0x0A, 0, 0, 0},
		{0x0D, 0x0D, 0, 0, 0},
		{0x20, 0x7E, 0, 0, 0},
		{0xC2, 0xDF, 1, 0x80, 0xBF},
		{0xE0, 0xE0, 2, 0xA0, 0xBF},
		{0xE1, 0xEC, 2, 0x80, 0xBF},
		{0xED, 0xED, 2, 0x80, 0x9F},
		{0xEE, 0xEF, 2, 0x80, 0xBF},
		{0xF0, 0xF0, 3, 0x90, 0xBF},
		{0xF1, 0xF3, 3, 0x80, 0xBF},
		{0xF4, 0xF4, 3, 0x80, 0x8F},
};
static_assert(sizeof sequences / sizeof *sequences == 11);

bool within(uint8_t byte, uint8_t low, uint8_t high)
{
	return byte >= low && byte <= high;
}

// The length of the sequence at the bytes, 0 when they are none. A zero byte continues nothing, so nothing behind it
// is read.
uint32_t sequence_length(const uint8_t *bytes)
{
	for (const sequence &row : sequences) {
		if (!within(bytes[0], row.first_low, row.first_high))
			continue;
		for (uint32_t i = 1; i <= row.following; ++i)
			if (!within(bytes[i], i == 1 ? row.second_low : uint8_t{0x80}, i == 1 ? row.second_high : uint8_t{0xBF}))
				return 0;
		return 1 + row.following;
	}
	return 0;
}

}

int is_valid_utf8(const uint8_t *bytes, uint32_t length)
{
	if (bytes == nullptr || (length & 0xFF) == 0) {
		FLEET_TEXT(LOG_ERR, "Invalid parameter\n");
		return 0;
	}
	while (*bytes != 0) {
		uint32_t step = sequence_length(bytes);
		if (step == 0) {
			FLEET_TEXT(LOG_ERR, "String is not UTF-8\n");
			return 0;
		}
		bytes += step;
	}
	return 1;
}
