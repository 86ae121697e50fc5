#include "json_helpers.h"

void add_text(json_object *object, const char *key, const std::string &text)
{
	json_object_object_add(object, key, json_object_new_string_len(text.data(), static_cast<int>(text.size())));
}

json_object *member_of(json_object *object, const char *key)
{
	json_object *value = nullptr;
	if (json_object_is_type(object, json_type_object))
		json_object_object_get_ex(object, key, &value);
	return value;
}

std::string text_of(json_object *object, const char *key)
{
	json_object *value = member_of(object, key);
	if (!json_object_is_type(value, json_type_string))
		return "";
	return {json_object_get_string(value), static_cast<size_t>(json_object_get_string_len(value))};
}

std::string plain_json(json_object *object)
{
	return json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}
