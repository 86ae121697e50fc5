#include "json_match.h"

#include <cstring>

namespace
{

std::string shown(json_object *value)
{
	return json_object_to_json_string_ext(value, JSON_C_TO_STRING_NOSLASHESCAPE);
}

bool is_any_text(json_object *expected, json_object *actual)
{
	return json_object_is_type(expected, json_type_string) && strcmp(json_object_get_string(expected), "*") == 0 &&
			json_object_is_type(actual, json_type_string) && json_object_get_string_len(actual) > 0;
}

std::string object_difference(json_object *expected, json_object *actual, const std::string &path)
{
	json_object_object_foreach(actual, name, ignored)
	{
		(void)ignored;
		if (!json_object_object_get_ex(expected, name, nullptr))
			return path + "." + name + " is not expected";
	}
	json_object_object_foreach(expected, key, value)
	{
		json_object *other = nullptr;
		if (!json_object_object_get_ex(actual, key, &other))
			return path + "." + key + " is missing";
		std::string difference = json_difference(value, other, path + "." + key);
		if (!difference.empty())
			return difference;
	}
	return {};
}

std::string array_difference(json_object *expected, json_object *actual, const std::string &path)
{
	const size_t count = json_object_array_length(expected);
	if (json_object_array_length(actual) != count)
		return path + " has " + std::to_string(json_object_array_length(actual)) + " elements, expected are " +
				std::to_string(count);
	for (size_t index = 0; index < count; ++index) {
		std::string difference = json_difference(json_object_array_get_idx(expected, index),
				json_object_array_get_idx(actual, index), path + "[" + std::to_string(index) + "]");
		if (!difference.empty())
			return difference;
	}
	return {};
}

}

std::string json_difference(json_object *expected, json_object *actual, const std::string &path)
{
	if (is_any_text(expected, actual))
		return {};
	const bool same_type = json_object_get_type(expected) == json_object_get_type(actual);
	if (same_type && json_object_is_type(expected, json_type_object))
		return object_difference(expected, actual, path);
	if (same_type && json_object_is_type(expected, json_type_array))
		return array_difference(expected, actual, path);
	if (same_type && json_object_equal(expected, actual))
		return {};
	return path + " is " + shown(actual) + ", expected is " + shown(expected);
}
