// The MQTT 5 properties that the bus uses on a publish.
#pragma once

#include "message_id.h"

#include <mosquitto.h>

// As they came with a message.
struct message_properties {
	char *content_type = nullptr; // owned, for free; NULL: none
	bool has_id = false;          // one that this bus could have made
	message_id id{};
	uint32_t left_s = UINT32_MAX; // what is left of its life; UINT32_MAX: it has no end
};

// Adds to *properties what is given: NULL texts and an expiry of 0 are left out. A result of the MQTT library; the list
// is the caller's to free in any case.
int mqtt_properties_make(mosquitto_property **properties, const char *content_type, const char *id, uint32_t expiry_s);

// False when memory is too short to read one that is there: without its id, a message could be taken twice.
bool mqtt_properties_read(const mosquitto_property *properties, message_properties *read);
