// Bytes from a peer through the splitter and the parser; what is understood as a frame must read back the same when
// it is written again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "canserver_lines.h"

static void require(bool holds)
{
	if (!holds)
		abort();
}

static void require_same(const bus_frame &written, const char *text, size_t length, canserver_kind kind)
{
	canserver_splitter splitter{};
	canserver_message read;
	int messages = 0;
	for (size_t i = 0; i < length; i++) {
		if (!canserver_split(&splitter, text[i]))
			continue;
		canserver_parse(splitter.text, splitter.length, &read);
		messages++;
	}
	require(messages == 1 && read.kind == kind);
	require(read.frame.id == written.id && read.frame.is_extended == written.is_extended);
	require(read.frame.length == written.length && memcmp(read.frame.data, written.data, sizeof(written.data)) == 0);
}

static void check(const canserver_message &message)
{
	require(message.kind >= CANSERVER_UNKNOWN && message.kind < canserver_kind_count);
	require(strnlen(message.text, sizeof(message.text)) < sizeof(message.text));
	require(message.kind != CANSERVER_OPEN || canserver_name_is_valid(message.text));
	require(message.frame.id <= bus_id_max && message.frame.length <= 8);
	if (message.kind != CANSERVER_SEND && message.kind != CANSERVER_FRAME)
		return;
	char text[canserver_text_max];
	require_same(message.frame, text, canserver_write_send(text, &message.frame), CANSERVER_SEND);
	require_same(message.frame, text, canserver_write_frame(text, &message.frame, 1), CANSERVER_FRAME);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	canserver_splitter splitter{};
	for (size_t i = 0; i < size; i++) {
		if (!canserver_split(&splitter, static_cast<char>(data[i])))
			continue;
		require(splitter.length <= canserver_text_max);
		const std::vector<char> exact(splitter.text, splitter.text + splitter.length); // its end is guarded
		canserver_message message;
		canserver_parse(exact.data(), exact.size(), &message);
		check(message);
	}
	const std::vector<char> whole(data, data + size);
	canserver_message message;
	canserver_parse(whole.data(), whole.size(), &message);
	check(message);
	return 0;
}
