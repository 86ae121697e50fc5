// Numbers as requests write them: texts, hexadecimal or decimal.
#pragma once

#include <cstdint>

// strtoul as a 32-bit unit has it, wherever the agent runs: what is too large becomes FFFFFFFF, a minus sign counts, a
// prefix "0x" is accepted in base 16, and a text without digits is 0.
uint32_t request_number(const char *text, int base);
