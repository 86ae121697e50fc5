// Building and looking at JSON objects, for requests and replies.
#pragma once

#include <memory>
#include <string>

#include <json-c/json.h>

struct json_releaser {
	void operator()(json_object *object) const
	{
		json_object_put(object);
	}
};
using json_pointer = std::unique_ptr<json_object, json_releaser>;

void add_text(json_object *object, const char *key, const std::string &text);

// A member of an object; NULL when it is absent, or the value no object. Borrowed from the object.
json_object *member_of(json_object *object, const char *key);

// The same through several objects.
template <typename... rest>
json_object *member_of(json_object *object, const char *key, const char *next, rest... more)
{
	return member_of(member_of(object, key), next, more...);
}

// The text of a member; empty when it is absent or no text.
std::string text_of(json_object *object, const char *key);

// On one line, slashes as they are.
std::string plain_json(json_object *object);
