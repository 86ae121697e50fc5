#include "hex_text.h"

#include <cstdlib>

bool is_hex(const std::string &text)
{
	return !text.empty() && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

bool is_decimal(const std::string &text)
{
	return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

bool parse_hex_byte(const std::string &text, uint8_t &byte)
{
	const bool prefixed = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0;
	const std::string digits = prefixed ? text.substr(2) : text;
	if (!is_hex(digits) || digits.size() > 2)
		return false;
	byte = static_cast<uint8_t>(strtoul(digits.c_str(), nullptr, 16));
	return true;
}

bool is_can_identifier(const std::string &text)
{
	return is_hex(text) && text.size() <= 8 && strtoul(text.c_str(), nullptr, 16) <= 0x1FFFFFFF;
}

bool parse_hex_bytes(const std::string &text, std::vector<uint8_t> &bytes)
{
	if (text.size() % 2 != 0 || (!text.empty() && !is_hex(text)))
		return false;
	bytes.clear();
	for (size_t at = 0; at < text.size(); at += 2)
		bytes.push_back(static_cast<uint8_t>(strtoul(text.substr(at, 2).c_str(), nullptr, 16)));
	return true;
}

std::string hex_of(uint8_t byte)
{
	return {"0123456789ABCDEF"[byte >> 4], "0123456789ABCDEF"[byte & 0xF]};
}

std::string hex_of(const std::vector<uint8_t> &bytes)
{
	std::string text;
	for (uint8_t byte : bytes)
		text += hex_of(byte);
	return text;
}

std::vector<std::string> split(const std::string &text, char separator)
{
	std::vector<std::string> parts;
	size_t begin = 0;
	size_t end = 0;
	while ((end = text.find(separator, begin)) != std::string::npos) {
		parts.push_back(text.substr(begin, end - begin));
		begin = end + 1;
	}
	parts.push_back(text.substr(begin));
	return parts;
}
