// Negative response codes by name (ISO 14229-1, annex A).
#pragma once

#include <cstdint>
#include <string>

// The code's name; for a code without one, whose it is.
std::string nrc_name(uint8_t code);

// A negative answer in words, as in "refused: NRC 22 conditionsNotCorrect".
std::string refusal_text(uint8_t code);
