// Reading a JSON file member by member, with errors that say where: the file, the JSON path of the offending member,
// what is expected there, and what stands there instead. The first error is kept; every later read does nothing, so a
// reader may go through a whole object and test once. Not for several threads.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

struct json_object;

struct json_reader {
	std::string file;  // as shown in the error
	std::string error; // empty: no error so far
};

// A value and its path, "$.ecus[0].name". The value is borrowed from the document.
struct json_place {
	json_object *value;
	std::string path;
};

enum json_need {
	JSON_OPTIONAL,
	JSON_REQUIRED,
};

// Keeps "<file>: <path>: expected <expected>, found <the value>" unless there is an error already.
void json_expected(json_reader *reader, const json_place &place, const std::string &expected);

// Keeps "<file>: <path>: <text>" unless there is an error already.
void json_wrong(json_reader *reader, const json_place &place, const std::string &text);

// The place of a member; its value is NULL when it is absent.
json_place json_member(const json_place &object, const char *name);

// Is the place an object that holds these members at most?
bool json_only(json_reader *reader, const json_place &object, std::initializer_list<const char *> names);

// Each writes its output only for a member that is there and right; an absent optional member leaves it as it is.
// They return whether they wrote.
bool json_text(json_reader *reader, const json_place &object, const char *name, json_need need, std::string *text);
bool json_flag(json_reader *reader, const json_place &object, const char *name, bool *flag);
bool json_number(json_reader *reader, const json_place &object, const char *name, json_need need, uint32_t least,
		uint32_t most, uint32_t *number);

// A number as hexadecimal text, with or without 0x.
bool json_hex(json_reader *reader, const json_place &object, const char *name, json_need need, uint32_t most,
		uint32_t *number);
bool json_hex_value(json_reader *reader, const json_place &place, uint32_t most, uint32_t *number);
bool json_hex_list(
		json_reader *reader, const json_place &object, const char *name, uint32_t most, std::vector<uint32_t> *numbers);

// Bytes as pairs of hexadecimal digits; blanks between the pairs are left out.
bool json_bytes(json_reader *reader, const json_place &object, const char *name, json_need need, size_t most,
		std::vector<uint8_t> *bytes);

// The bytes of an object's member "value", or the characters of its member "text": exactly one of them, 1 to most
// bytes.
bool json_value(json_reader *reader, const json_place &object, size_t most, std::vector<uint8_t> *bytes);

// Calls take for each element of an array member; returns false when the member is absent or wrong.
bool json_each(json_reader *reader, const json_place &object, const char *name, json_need need,
		const std::function<void(const json_place &)> &take);
