// Bytes as the tests hand them around.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

using bytes = std::vector<uint8_t>;

inline bytes counted_bytes(size_t length)
{
	bytes result(length);
	for (size_t i = 0; i < length; i++)
		result[i] = static_cast<uint8_t>(i * 7 + i / 256);
	return result;
}
