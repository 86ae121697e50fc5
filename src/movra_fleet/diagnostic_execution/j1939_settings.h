// Where a version stands in a J1939 broadcast, as a request says it.
#pragma once

#include <cstdint>

#include <json-c/json.h>

#include "can_parser.h"

struct j1939_settings {
	char *ifname; // owned
	uint32_t id;
	uint32_t timeout;      // part of a request, used nowhere: the library knows how long to wait
	j1939_signal *signals; // owned list, in the request's order
};

// New settings from a request's j1939 object, or NULL, logged, when one key or one signal's key is missing.
j1939_settings *parse_j1939_settings(json_object *object);

// Frees the settings with their signals. NULL is accepted.
void free_j1939_settings(j1939_settings *settings);
