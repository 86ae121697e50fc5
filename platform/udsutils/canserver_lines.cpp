#include "canserver_lines.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <iterator>

static constexpr uint8_t frame_bytes_max = 8;
static constexpr size_t long_id_digits = 8; // an identifier written with so many digits is a 29-bit one

struct token {
	const char *text;
	size_t length;
};

// The inside of a message, taken word by word.
struct words {
	const char *at;
	const char *end;
};

static bool is_blank(char c)
{
	return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

static token next_word(words *rest)
{
	while (rest->at < rest->end && is_blank(*rest->at))
		rest->at++;
	const char *start = rest->at;
	while (rest->at < rest->end && !is_blank(*rest->at))
		rest->at++;
	return {start, static_cast<size_t>(rest->at - start)};
}

static int hex_digit(char c)
{
	if (c >= '0' && c <= '9')
		return c - '0';
	const char lower = static_cast<char>(c | 0x20);
	return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// 1 to 8 hexadecimal digits and nothing else.
static bool read_hex(token word, uint32_t *value)
{
	if (word.length == 0 || word.length > 8)
		return false;
	uint32_t result = 0;
	for (size_t i = 0; i < word.length; i++) {
		const int digit = hex_digit(word.text[i]);
		if (digit < 0)
			return false;
		result = result << 4 | static_cast<uint32_t>(digit);
	}
	*value = result;
	return true;
}

static bool read_id(token word, bus_frame *frame)
{
	uint32_t id = 0;
	if (!read_hex(word, &id) || id > bus_id_max)
		return false;
	frame->id = id;
	frame->is_extended = word.length == long_id_digits || bus_id_is_extended(id);
	return true;
}

// "seconds.microseconds"; the value is of no use to us.
static bool is_time(token word)
{
	size_t digits = 0;
	size_t points = 0;
	for (size_t i = 0; i < word.length; i++) {
		digits += word.text[i] >= '0' && word.text[i] <= '9';
		points += word.text[i] == '.';
	}
	return digits > 0 && points <= 1 && digits + points == word.length;
}

static bool read_send(words *rest, canserver_message *message)
{
	bus_frame *frame = &message->frame;
	uint32_t value = 0;
	if (!read_id(next_word(rest), frame) || !read_hex(next_word(rest), &value) || value > frame_bytes_max)
		return false;
	frame->length = static_cast<uint8_t>(value);
	for (size_t i = 0; i < frame->length; i++) {
		const token word = next_word(rest);
		if (word.length > 2 || !read_hex(word, &value))
			return false;
		frame->data[i] = static_cast<uint8_t>(value);
	}
	return next_word(rest).length == 0;
}

// The data come as one run of pairs, or as separate pairs.
static bool read_frame(words *rest, canserver_message *message)
{
	bus_frame *frame = &message->frame;
	if (!read_id(next_word(rest), frame) || !is_time(next_word(rest)))
		return false;
	for (token word = next_word(rest); word.length != 0; word = next_word(rest)) {
		if (word.length % 2 != 0 || frame->length + word.length / 2 > frame_bytes_max)
			return false;
		for (size_t i = 0; i < word.length; i += 2) {
			uint32_t value = 0;
			if (!read_hex({word.text + i, 2}, &value))
				return false;
			frame->data[frame->length++] = static_cast<uint8_t>(value);
		}
	}
	return true;
}

static bool read_name(words *rest, canserver_message *message)
{
	const token word = next_word(rest);
	if (word.length > canserver_name_max)
		return false;
	memcpy(message->text, word.text, word.length);
	return canserver_name_is_valid(message->text) && next_word(rest).length == 0;
}

static bool read_reason(words *rest, canserver_message *message)
{
	while (rest->at < rest->end && is_blank(*rest->at))
		rest->at++;
	while (rest->at < rest->end && is_blank(rest->end[-1]))
		rest->end--;
	size_t length = static_cast<size_t>(rest->end - rest->at);
	if (length > canserver_name_max)
		length = canserver_name_max;
	for (size_t i = 0; i < length; i++) // it ends up on a terminal
		message->text[i] = rest->at[i] >= ' ' && rest->at[i] <= '~' ? rest->at[i] : '?';
	return true;
}

static bool read_nothing(words *rest, canserver_message *)
{
	return next_word(rest).length == 0;
}

static bool read_remote(words *rest, canserver_message *message)
{
	return read_id(next_word(rest), &message->frame);
}

struct row {
	const char *word;
	canserver_kind kind;
	bool (*read)(words *rest, canserver_message *message);
};

static constexpr row rows[] = {
		{"hi", CANSERVER_HI, read_nothing},
		{"ok", CANSERVER_OK, read_nothing},
		{"error", CANSERVER_ERROR, read_reason},
		{"open", CANSERVER_OPEN, read_name},
		{"rawmode", CANSERVER_RAWMODE, read_nothing},
		{"echo", CANSERVER_ECHO, read_nothing},
		{"send", CANSERVER_SEND, read_send},
		{"frame", CANSERVER_FRAME, read_frame},
		{"rtr", CANSERVER_REMOTE, read_remote},
		{"sendrtr", CANSERVER_REMOTE, read_remote},
};
static_assert(std::size(rows) == canserver_kind_count, "one for each kind but unknown, two for remote");

void canserver_parse(const char *text, size_t length, canserver_message *message)
{
	*message = {};
	if (length < 2 || text[0] != '<' || text[length - 1] != '>')
		return;
	words rest{text + 1, text + length - 1};
	const token word = next_word(&rest);
	for (const row &r : rows) {
		if (strlen(r.word) != word.length || memcmp(r.word, word.text, word.length) != 0)
			continue;
		if (r.read(&rest, message))
			message->kind = r.kind;
		else
			*message = {};
		return;
	}
}

// A '<' always begins a message: one that was cut off before it is passed over.
bool canserver_split(canserver_splitter *splitter, char byte)
{
	const bool was_whole = splitter->length > 0 && splitter->text[splitter->length - 1] == '>';
	if (was_whole)
		splitter->length = 0;
	if (byte == '<') {
		splitter->text[0] = byte;
		splitter->length = 1;
		splitter->skips = false;
		return false;
	}
	if (splitter->length == 0 || splitter->skips)
		return false;
	if (splitter->length == canserver_text_max) {
		splitter->length = 0;
		splitter->skips = true;
		return false;
	}
	splitter->text[splitter->length++] = byte;
	return byte == '>';
}

bool canserver_name_is_valid(const char *name)
{
	const size_t length = strnlen(name, canserver_name_max + 1);
	if (length == 0 || length > canserver_name_max)
		return false;
	for (size_t i = 0; i < length; i++)
		if (name[i] <= ' ' || name[i] > '~' || name[i] == '<' || name[i] == '>')
			return false;
	return true;
}

size_t canserver_write_open(char *space, const char *bus)
{
	return static_cast<size_t>(
			snprintf(space, canserver_text_max, "< open %.*s >", static_cast<int>(canserver_name_max), bus));
}

static size_t write_id(char *space, size_t room, const bus_frame *frame)
{
	return static_cast<size_t>(snprintf(space, room, frame->is_extended ? "%08" PRIX32 : "%03" PRIX32, frame->id));
}

size_t canserver_write_send(char *space, const bus_frame *frame)
{
	size_t at = static_cast<size_t>(snprintf(space, canserver_text_max, "< send "));
	at += write_id(space + at, canserver_text_max - at, frame);
	at += static_cast<size_t>(snprintf(space + at, canserver_text_max - at, " %u", unsigned{frame->length}));
	for (size_t i = 0; i < frame->length && i < frame_bytes_max; i++)
		at += static_cast<size_t>(snprintf(space + at, canserver_text_max - at, " %02X", unsigned{frame->data[i]}));
	return at + static_cast<size_t>(snprintf(space + at, canserver_text_max - at, " >"));
}

size_t canserver_write_frame(char *space, const bus_frame *frame, int64_t time_us)
{
	size_t at = static_cast<size_t>(snprintf(space, canserver_text_max, "\n< frame "));
	at += write_id(space + at, canserver_text_max - at, frame);
	at += static_cast<size_t>(snprintf(
			space + at, canserver_text_max - at, " %" PRId64 ".%06" PRId64 " ", time_us / 1000000, time_us % 1000000));
	for (size_t i = 0; i < frame->length && i < frame_bytes_max; i++)
		at += static_cast<size_t>(snprintf(space + at, canserver_text_max - at, "%02X", unsigned{frame->data[i]}));
	return at + static_cast<size_t>(snprintf(space + at, canserver_text_max - at, " >"));
}
