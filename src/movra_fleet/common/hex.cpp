#include "movra_fleet/common/hex.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "movra_fleet/common/agent_log.h"
#include "scoped.h"

namespace
{

constexpr size_t shortest_cut = 24;  // a run of this many bytes is always dumped whole
constexpr size_t head_size = 256;    // time, module, line, label and count; a longer label is cut
constexpr size_t dump_cell_size = 3; // a blank and two digits

// The value of a hexadecimal digit, or -1.
int digit_value(char character)
{
	if (character >= '0' && character <= '9')
		return character - '0';
	if (character >= 'a' && character <= 'f')
		return character - 'a' + 10;
	if (character >= 'A' && character <= 'F')
		return character - 'A' + 10;
	return -1;
}

}

void log_hex_dump(const char *label, const uint8_t *bytes, size_t length, int line)
{
	size_t shown = verbosity >= LOG_D3BG ? length : std::min(length, shortest_cut);
	scoped<char, free> text(static_cast<char *>(malloc(head_size + shown * dump_cell_size + sizeof "...\n")));
	if (!text)
		return; // a dump is an aid: without memory it is left out

	char stamp[64] = "";
	log_stamp(stamp, sizeof stamp);
	(void)snprintf(text.get(), head_size, "[%s]:%s(%d): %s (%ld bytes):", stamp, agent_log_source, line, label,
			static_cast<long>(length)); // cut on purpose

	char *end = text.get() + strlen(text.get());
	for (size_t i = 0; i < shown; ++i, end += dump_cell_size)
		(void)snprintf(end, dump_cell_size + 1, " %02x", bytes[i]);             // exactly one cell
	(void)snprintf(end, sizeof "...\n", "%s", shown < length ? "...\n" : "\n"); // room for either

	(void)fputs(text.get(), stdout); // as for every log line, nobody hears of a closed output
	(void)fflush(stdout);
}

char *bytes_to_hex_string(const uint8_t *bytes, size_t length)
{
	if (verbosity >= LOG_DBG)
		log_hex_dump("Data: ", bytes, length, __LINE__);

	size_t size = (length + 1) * 2;
	char *text = static_cast<char *>(calloc(size, 1));
	if (text == nullptr) {
		FLEET_ERR("Memory Allocation failed %d\n", static_cast<int>(size));
		return nullptr;
	}
	for (size_t i = 0; i < length; ++i)
		(void)snprintf(text + 2 * i, 3, "%02X", bytes[i]); // exactly two digits
	return text;
}

size_t hex_string_to_bytes(const char *text, uint8_t *output, size_t capacity)
{
	size_t count = 0;
	while (*text != '\0' && count < capacity) {
		int high = digit_value(text[0]);
		int low = text[1] != '\0' ? digit_value(text[1]) : -1;
		if (high >= 0)
			output[count] = static_cast<uint8_t>(low >= 0 ? high << 4 | low : high);
		++count;
		text += text[1] != '\0' ? 2 : 1;
	}
	return count;
}
