// The type of one field of a request. The path helper gives the deepest node along its path that has the wanted type:
// an object around the field when that is none itself.
#pragma once

#include <json-c/json.h>

#include <initializer_list>

// Has the field at the end of the path that very type? False when a key is missing.
bool field_has_type(json_object *request, std::initializer_list<const char *> path, json_type type);
