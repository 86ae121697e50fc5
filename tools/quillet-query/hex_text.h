// Texts of digits, as arguments, requests and replies carry them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

bool is_hex(const std::string &text);
bool is_decimal(const std::string &text);

// One byte in one or two hexadecimal digits, with or without 0x.
bool parse_hex_byte(const std::string &text, uint8_t &byte);

// A CAN identifier in hexadecimal, up to 29 bits.
bool is_can_identifier(const std::string &text);

// Pairs of hexadecimal digits; false when the text is something else. An empty text is no bytes.
bool parse_hex_bytes(const std::string &text, std::vector<uint8_t> &bytes);

// Upper case, without separators.
std::string hex_of(const std::vector<uint8_t> &bytes);
std::string hex_of(uint8_t byte);

std::vector<std::string> split(const std::string &text, char separator);
