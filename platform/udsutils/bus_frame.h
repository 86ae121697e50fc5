// One classic CAN data frame, as the channel, the links and the CAN server hand it around.
#pragma once

#include <cstdint>

constexpr uint32_t bus_id_max = 0x1FFFFFFFu;  // 29 bit
constexpr uint32_t bus_id_short_max = 0x7FFu; // 11 bit

struct bus_frame {
	uint32_t id;
	bool is_extended; // 29-bit identifier
	uint8_t length;   // 0 to 8
	uint8_t data[8];
};

// The house rule for identifiers that come as plain numbers: 29-bit above 7FF.
constexpr bool bus_id_is_extended(uint32_t id)
{
	return id > bus_id_short_max;
}
