// One walk along the keys serves every helper: a missing key leaves the cursor at NULL, so that each key after it
// is missing too.
#include "tervUtils.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "logger.h"

namespace
{

constexpr const char module_name[] = "tervUtils";

bool holds_document(int type)
{
	return type == json_type_object || type == json_type_array;
}

void release_document(json_object **out)
{
	(void)json_object_put(*out); // says only whether it was the last reference
	*out = nullptr;
}

// The deepest node along the path that has the type, or NULL; *complete tells whether every key was there.
json_object *find_deepest(json_object *root, int type, const char *key, va_list keys, bool *complete)
{
	json_object *cursor = root;
	json_object *deepest = nullptr;
	*complete = true;
	for (; key != nullptr; key = va_arg(keys, const char *)) {
		json_object *child = nullptr;
		if (!json_object_object_get_ex(cursor, key, &child)) {
			LOG_AT(LOG_INFO, module_name, "No %s property in %s\n", key, json_object_to_json_string(root));
			*complete = false;
		}
		cursor = child;
		if (cursor != nullptr && json_object_is_type(cursor, static_cast<json_type>(type)))
			deepest = cursor;
	}
	return deepest;
}

bool store(json_object *node, int type, void *out)
{
	switch (type) {
	case json_type_boolean:
		*static_cast<int *>(out) = json_object_get_boolean(node);
		return true;
	case json_type_double:
		*static_cast<double *>(out) = json_object_get_double(node);
		return true;
	case json_type_int:
		*static_cast<int *>(out) = json_object_get_int(node);
		return true;
	case json_type_string:
		*static_cast<const char **>(out) = json_object_get_string(node);
		return true;
	case json_type_object:
	case json_type_array:
		return json_object_deep_copy(node, static_cast<json_object **>(out), nullptr) == 0;
	default:
		return false;
	}
}

// Deleting first moves the key to the end of its object.
bool replace_string(json_object *parent, const char *key, const char *value, json_object **replaced)
{
	json_object *text = value != nullptr ? json_object_new_string(value) : nullptr;
	if (text == nullptr)
		return false;
	json_object_object_del(parent, key);
	*replaced = text;
	if (json_object_object_add(parent, key, text) == 0)
		return true;
	release_document(replaced);
	return false;
}

}

int json_get_path(json_object *root, int type, void *out, const char *key, ...)
{
	if (out == nullptr) {
		LOG_AT(LOG_ERR, module_name, "Wrong Value");
		return -1;
	}
	if (holds_document(type))
		release_document(static_cast<json_object **>(out));

	bool complete = false;
	va_list keys;
	va_start(keys, key);
	json_object *node = find_deepest(root, type, key, keys, &complete);
	va_end(keys);
	return complete && node != nullptr && store(node, type, out) ? 0 : -1;
}

bool json_path_exists(json_object *root, int, const char *key, ...)
{
	json_object *cursor = root;
	bool exists = true;
	va_list keys;
	va_start(keys, key);
	for (; exists && key != nullptr; key = va_arg(keys, const char *))
		exists = json_object_object_get_ex(cursor, key, &cursor);
	va_end(keys);
	return exists;
}

int json_set_string_path(json_object *root, const char *save_path, int type, const char *value, const char *key, ...)
{
	int result = 0;
	json_object *cursor = root;
	va_list keys;
	va_start(keys, key);
	for (; key != nullptr; key = va_arg(keys, const char *)) {
		json_object *parent = cursor;
		if (!json_object_object_get_ex(parent, key, &cursor)) {
			LOG_AT(LOG_ERR, module_name, "No %s property in %s\n", key, json_object_to_json_string(root));
			result = -1;
		} else if (json_object_is_type(cursor, static_cast<json_type>(type)) &&
				(type != json_type_string || !replace_string(parent, key, value, &cursor))) {
			result = -1;
		}
	}
	va_end(keys);

	if (save_path != nullptr) {
		if (json_object_to_file_ext(save_path, root, JSON_C_TO_STRING_PRETTY) != 0)
			result = -1;
		sync();
	}
	return result;
}

char *string_format_alloc(const char *format, ...)
{
	char *text = nullptr;
	va_list arguments;
	va_start(arguments, format);
	int length = vasprintf(&text, format, arguments);
	va_end(arguments);
	return length < 0 ? nullptr : text;
}
