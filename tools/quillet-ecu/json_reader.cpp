#include "json_reader.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <optional>

#include <json-c/json.h>

namespace
{

// How much of a wrong value an error repeats.
constexpr size_t shown_bytes = 60;

std::string shown(json_object *value)
{
	if (value == nullptr)
		return "null";
	std::string text = json_object_to_json_string_ext(value, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
	if (text.size() > shown_bytes)
		text = text.substr(0, shown_bytes) + "...";
	return text;
}

std::optional<std::string> text_of(json_object *value)
{
	if (!json_object_is_type(value, json_type_string))
		return std::nullopt;
	return std::string(json_object_get_string(value), static_cast<size_t>(json_object_get_string_len(value)));
}

// Is there something to read: false for an absent member, which is an error when it is needed, and after an error.
bool present(json_reader *reader, const json_place &member, json_need need, const std::string &expected)
{
	if (!reader->error.empty())
		return false;
	if (member.value == nullptr && need == JSON_REQUIRED)
		json_wrong(reader, member, "missing: expected " + expected);
	return member.value != nullptr;
}

bool parse_hex(std::string_view text, uint32_t most, uint32_t *number)
{
	if (text.starts_with("0x") || text.starts_with("0X"))
		text.remove_prefix(2);
	uint32_t parsed = 0;
	const char *end = text.data() + text.size();
	const auto result = std::from_chars(text.data(), end, parsed, 16);
	if (result.ec != std::errc() || result.ptr != end || parsed > most)
		return false;
	*number = parsed;
	return true;
}

bool parse_bytes(const std::string &text, std::vector<uint8_t> *bytes)
{
	for (size_t at = 0; at < text.size();) {
		if (text[at] == ' ') {
			at++;
			continue;
		}
		uint32_t byte = 0;
		const std::string pair = text.substr(at, 2);
		if (pair.size() != 2 || std::isxdigit(static_cast<unsigned char>(pair[0])) == 0 ||
				std::isxdigit(static_cast<unsigned char>(pair[1])) == 0 || !parse_hex(pair, 0xFF, &byte))
			return false;
		bytes->push_back(static_cast<uint8_t>(byte));
		at += 2;
	}
	return true;
}

std::string hex_expectation(uint32_t most)
{
	char text[80];
	(void)snprintf(text, sizeof(text), "hexadecimal digits as text, at most \"%X\"", most); // always fits
	return text;
}

} // namespace

void json_wrong(json_reader *reader, const json_place &place, const std::string &text)
{
	if (reader->error.empty())
		reader->error = reader->file + ": " + place.path + ": " + text;
}

void json_expected(json_reader *reader, const json_place &place, const std::string &expected)
{
	json_wrong(reader, place, "expected " + expected + ", found " + shown(place.value));
}

json_place json_member(const json_place &object, const char *name)
{
	json_place member = {nullptr, object.path + "." + name};
	if (json_object_is_type(object.value, json_type_object))
		(void)json_object_object_get_ex(object.value, name, &member.value); // absent leaves NULL
	return member;
}

bool json_only(json_reader *reader, const json_place &object, std::initializer_list<const char *> names)
{
	if (!reader->error.empty())
		return false;
	if (!json_object_is_type(object.value, json_type_object)) {
		json_expected(reader, object, "an object");
		return false;
	}
	json_object_object_foreach(object.value, key, value)
	{
		(void)value; // only the names are looked at
		const bool known =
				std::any_of(names.begin(), names.end(), [key](const char *name) { return strcmp(key, name) == 0; });
		if (known)
			continue;
		std::string list;
		for (const char *name : names)
			list += list.empty() ? name : std::string(", ") + name;
		json_wrong(reader, json_member(object, key), "unknown member; known here: " + list);
		return false;
	}
	return true;
}

bool json_text(json_reader *reader, const json_place &object, const char *name, json_need need, std::string *text)
{
	const json_place member = json_member(object, name);
	const char *expected = "a text that is not empty";
	if (!present(reader, member, need, expected))
		return false;
	const auto found = text_of(member.value);
	if (!found || found->empty() || found->find('\0') != std::string::npos) {
		json_expected(reader, member, expected);
		return false;
	}
	*text = *found;
	return true;
}

bool json_flag(json_reader *reader, const json_place &object, const char *name, bool *flag)
{
	const json_place member = json_member(object, name);
	if (!present(reader, member, JSON_OPTIONAL, ""))
		return false;
	if (!json_object_is_type(member.value, json_type_boolean)) {
		json_expected(reader, member, "true or false");
		return false;
	}
	*flag = json_object_get_boolean(member.value) != 0;
	return true;
}

bool json_number(json_reader *reader, const json_place &object, const char *name, json_need need, uint32_t least,
		uint32_t most, uint32_t *number)
{
	const json_place member = json_member(object, name);
	const std::string expected = "a whole number from " + std::to_string(least) + " to " + std::to_string(most);
	if (!present(reader, member, need, expected))
		return false;
	const int64_t found = json_object_is_type(member.value, json_type_int) ? json_object_get_int64(member.value) : -1;
	if (found < static_cast<int64_t>(least) || found > static_cast<int64_t>(most)) {
		json_expected(reader, member, expected);
		return false;
	}
	*number = static_cast<uint32_t>(found);
	return true;
}

bool json_hex_value(json_reader *reader, const json_place &place, uint32_t most, uint32_t *number)
{
	if (!reader->error.empty())
		return false;
	const auto text = text_of(place.value);
	if (!text || !parse_hex(*text, most, number)) {
		json_expected(reader, place, hex_expectation(most));
		return false;
	}
	return true;
}

bool json_hex(json_reader *reader, const json_place &object, const char *name, json_need need, uint32_t most,
		uint32_t *number)
{
	const json_place member = json_member(object, name);
	return present(reader, member, need, hex_expectation(most)) && json_hex_value(reader, member, most, number);
}

bool json_hex_list(
		json_reader *reader, const json_place &object, const char *name, uint32_t most, std::vector<uint32_t> *numbers)
{
	std::vector<uint32_t> read;
	const bool there = json_each(reader, object, name, JSON_OPTIONAL, [&](const json_place &element) {
		uint32_t number = 0;
		if (json_hex_value(reader, element, most, &number))
			read.push_back(number);
	});
	if (!there || !reader->error.empty())
		return false;
	*numbers = read;
	return true;
}

bool json_bytes(json_reader *reader, const json_place &object, const char *name, json_need need, size_t most,
		std::vector<uint8_t> *bytes)
{
	const json_place member = json_member(object, name);
	const std::string expected = "pairs of hexadecimal digits as text, at most " + std::to_string(most) + " bytes";
	if (!present(reader, member, need, expected))
		return false;
	const auto text = text_of(member.value);
	std::vector<uint8_t> read;
	if (!text || !parse_bytes(*text, &read) || read.size() > most) {
		json_expected(reader, member, expected);
		return false;
	}
	*bytes = read;
	return true;
}

bool json_value(json_reader *reader, const json_place &object, size_t most, std::vector<uint8_t> *bytes)
{
	const bool has_bytes = json_member(object, "value").value != nullptr;
	if (has_bytes == (json_member(object, "text").value != nullptr)) {
		json_wrong(reader, object, "expected either \"value\" (bytes) or \"text\"");
		return false;
	}
	std::string text;
	std::vector<uint8_t> read;
	const bool is_read = has_bytes ? json_bytes(reader, object, "value", JSON_OPTIONAL, most, &read)
								   : json_text(reader, object, "text", JSON_OPTIONAL, &text);
	if (!is_read)
		return false;
	read.insert(read.end(), text.begin(), text.end());
	if (read.empty() || read.size() > most) {
		json_wrong(reader, object, "expected a value of 1 to " + std::to_string(most) + " bytes");
		return false;
	}
	*bytes = read;
	return true;
}

bool json_each(json_reader *reader, const json_place &object, const char *name, json_need need,
		const std::function<void(const json_place &)> &take)
{
	const json_place member = json_member(object, name);
	if (!present(reader, member, need, "an array"))
		return false;
	if (!json_object_is_type(member.value, json_type_array)) {
		json_expected(reader, member, "an array");
		return false;
	}
	const size_t count = json_object_array_length(member.value);
	for (size_t index = 0; index < count && reader->error.empty(); index++)
		take({json_object_array_get_idx(member.value, index), member.path + "[" + std::to_string(index) + "]"});
	return reader->error.empty();
}
