// The settings of the long transfers: what each bit rate, each link and each peer is tried with.
#pragma once

#include "row.h"

struct long_transfer {
	size_t length;
	uint8_t block_size;
	uint8_t st_min;
};

inline std::vector<long_transfer> long_transfers()
{
	std::vector<long_transfer> result;
	for (const size_t length : {8191u, 4095u})
		for (const uint8_t block_size : bytes{1, 8, 255, 0})
			for (const uint8_t st_min : bytes{0x01, 0xF1, 0x00})
				result.push_back({length, block_size, st_min});
	return result;
}
