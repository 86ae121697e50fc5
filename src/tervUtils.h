// Values several levels deep in a json-c document, read with one call: the wanted json type and the keys of
// the path, ended by NULL. No state; any thread, as long as nobody changes the document meanwhile.
#pragma once

#include <json-c/json.h>

// Stores the deepest node along the path that has the wanted type, as
//   json_type_boolean, json_type_int  int        json_type_double  double
//   json_type_string                  const char *, borrowed from the document
//   json_type_object, json_type_array json_object *, a copy that the caller releases with json_object_put
// An object or array that *out already holds is released first, also when nothing is found.
// Each missing key is logged at INFO. 0 when a value was stored, else -1.
int json_get_path(json_object *root, int type, void *out, const char *key, ...) __attribute__((sentinel));

// Does every key of the path exist? The type never makes the answer false: it is a test of presence only.
bool json_path_exists(json_object *root, int type, const char *key, ...) __attribute__((sentinel));

// Replaces the strings along the path by value and, unless save_path is NULL, writes the document to that file. 0, or
// -1.
int json_set_string_path(json_object *root, const char *save_path, int type, const char *value, const char *key, ...)
		__attribute__((sentinel));

// The formatted text in new memory that the caller frees, or NULL.
char *string_format_alloc(const char *format, ...) __attribute__((format(printf, 1, 2)));
