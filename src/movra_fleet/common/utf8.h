// Is a text one that a reply can carry as it is?
#pragma once

#include <cstdint>

// 1 when the bytes up to the first zero byte are well-formed UTF-8 (Unicode, table 3-7) without control characters
// other than TAB, LF and CR; else 0, logged. The bytes end in a zero byte: the length does not bound the scan, but one
// whose low 8 bits are 0 is refused.
int is_valid_utf8(const uint8_t *bytes, uint32_t length);
