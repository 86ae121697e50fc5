// Whether a JSON value is as expected.
#pragma once

#include <string>

#include <json-c/json.h>

// Objects have the same members in any order, arrays the same elements in theirs. The expected text "*" stands for any
// text that is not empty. Returns nothing, or the first difference with its path.
std::string json_difference(json_object *expected, json_object *actual, const std::string &path = "reply");
