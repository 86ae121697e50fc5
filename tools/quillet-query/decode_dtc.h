// Turns an answer to ReadDTCInformation (ISO 14229-1) into lines for people. An answer that ends too early or has bytes
// too many is shown as far as it goes, with what is left over.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "dtc_names.h"

// data is the answer without the service and the sub-function. The first line sums the answer up.
std::vector<std::string> decode_dtc_answer(const dtc_report &report, const std::vector<uint8_t> &data);
