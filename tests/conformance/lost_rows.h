// What a lost frame of each kind does, to whoever has sent a message and to whoever was to receive it.
#pragma once

#include "row.h"

struct lost_row {
	const char *what;
	size_t length;
	uint8_t block_size;
	int frame;            // that is lost
	isotp_result sent;    // what the sender knows
	isotp_result failure; // what the receiver knows; ISOTP_OK for nothing
	int64_t took_us;
};

inline constexpr lost_row lost_rows[] = {
		{"the single frame", 7, 0, 0, ISOTP_OK, ISOTP_OK, 0},
		{"the first frame", 34, 0, 0, ISOTP_TIMEOUT_BS, ISOTP_OK, 1000 * ms},
		{"the flow control", 34, 0, 1, ISOTP_TIMEOUT_BS, ISOTP_TIMEOUT_CR, 1000 * ms},
		{"consecutive frame 1 of 4", 34, 0, 2, ISOTP_OK, ISOTP_WRONG_SN, 0},
		{"consecutive frame 2 of 4", 34, 0, 3, ISOTP_OK, ISOTP_WRONG_SN, 0},
		{"consecutive frame 3 of 4", 34, 0, 4, ISOTP_OK, ISOTP_WRONG_SN, 0},
		{"the last consecutive frame", 34, 0, 5, ISOTP_OK, ISOTP_TIMEOUT_CR, 1000 * ms},
		{"the first frame before blocks", 34, 2, 0, ISOTP_TIMEOUT_BS, ISOTP_OK, 1000 * ms},
		{"the flow control of the first block", 34, 2, 1, ISOTP_TIMEOUT_BS, ISOTP_TIMEOUT_CR, 1000 * ms},
		{"the first frame of a block", 34, 2, 2, ISOTP_TIMEOUT_BS, ISOTP_WRONG_SN, 1000 * ms},
		{"the last frame of a block", 34, 2, 3, ISOTP_TIMEOUT_BS, ISOTP_TIMEOUT_CR, 1000 * ms},
		{"the flow control of the second block", 34, 2, 4, ISOTP_TIMEOUT_BS, ISOTP_TIMEOUT_CR, 1000 * ms},
		{"the first frame of the last block", 34, 2, 5, ISOTP_OK, ISOTP_WRONG_SN, 0},
		{"the last frame of the last block", 34, 2, 6, ISOTP_OK, ISOTP_TIMEOUT_CR, 1000 * ms},
		{"the first frame of 8191 bytes", 8191, 8, 0, ISOTP_TIMEOUT_BS, ISOTP_OK, 1000 * ms},
		{"a flow control in the middle of 8191 bytes", 8191, 8, 1 + 9 * 70, ISOTP_TIMEOUT_BS, ISOTP_TIMEOUT_CR,
				1000 * ms},
		{"the last frame of 8191 bytes", 8191, 8, 1317, ISOTP_OK, ISOTP_TIMEOUT_CR, 1000 * ms},
};
