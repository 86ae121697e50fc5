// A fuzz target's input, taken byte by byte; past its end there are zeros.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

struct fuzz_input {
	const uint8_t *at;
	size_t left;
};

inline void require(bool holds)
{
	if (!holds)
		abort();
}

inline uint8_t take_byte(fuzz_input *input)
{
	if (input->left == 0)
		return 0;
	input->left--;
	return *input->at++;
}

// A text: its length, then its bytes, without any zero byte.
inline std::string take_text(fuzz_input *input)
{
	std::string text;
	for (size_t length = take_byte(input); length > 0 && input->left > 0; length--) {
		const char byte = static_cast<char>(take_byte(input));
		if (byte != '\0')
			text.push_back(byte);
	}
	return text;
}
