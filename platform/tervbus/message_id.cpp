#include "message_id.h"

#include <unistd.h>

namespace
{

constexpr uint32_t short_id_mask = 0xFFFFF;
constexpr std::string_view digits = "0123456789abcdef";

} // namespace

uint32_t short_id_next(uint32_t id)
{
	const uint32_t next = (id + 1) & short_id_mask;
	return next == 0 ? 1 : next;
}

bool message_id_new(message_id *id)
{
	return getentropy(id->data(), id->size()) == 0;
}

message_id_digits message_id_text(const message_id &id)
{
	message_id_digits written;
	char *next = written.text;
	for (const uint8_t byte : id) {
		*next++ = digits[byte >> 4];
		*next++ = digits[byte & 0x0F];
	}
	return written;
}

bool message_id_parse(std::string_view text, message_id *id)
{
	message_id parsed{};
	if (text.size() != 2 * parsed.size())
		return false;

	for (size_t i = 0; i < text.size(); i++) {
		const size_t digit = digits.find(text[i]);
		if (digit == std::string_view::npos)
			return false;
		parsed[i / 2] = static_cast<uint8_t>(parsed[i / 2] << 4 | digit);
	}
	*id = parsed;
	return true;
}
