// Bytes as the log, the requests and the replies show them.
#pragma once

#include <cstddef>
#include <cstdint>

// Prints one line on standard output, past the logger: time (UTC), module, line of the call site, label, count and
// the bytes; 24 of them at most unless the verbosity is D3BG. The line leaves in one piece.
void log_hex_dump(const char *label, const uint8_t *bytes, size_t length, int line);

// Upper-case pairs without separators, in new memory that the caller frees; NULL, logged, when memory is short.
char *bytes_to_hex_string(const uint8_t *bytes, size_t length);

// Reads the text two characters at a time, one output byte for each pair, and never more than capacity of them. A
// pair is read as far as it holds hex digits; one that starts with another character leaves its byte as it was, and
// counts. A single digit at the end is a byte of its own where there is room for it. Returns the bytes counted.
size_t hex_string_to_bytes(const char *text, uint8_t *output, size_t capacity);
