// The bytes of ISO 14229-1 that more than one part of the agent looks at.
#pragma once

#include <cstdint>

inline constexpr uint8_t uds_positive_response_bit = 0x40; // set in the SID of a positive answer
inline constexpr uint8_t uds_negative_response = 0x7F;     // then the refused SID, then the NRC
inline constexpr uint8_t uds_nrc_response_pending = 0x78;
