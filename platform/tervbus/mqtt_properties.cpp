#include "mqtt_properties.h"

#include "record.h"

#include <mqtt_protocol.h>

#include <cstring>

namespace
{

const char *const id_name = "movra-id";

using text = scoped<char, free>;

// One user property. Asked without a place for its texts, the MQTT library only says where it is; asked with one, it
// says nothing also when memory is short.
bool read_if_id(const mosquitto_property *property, message_properties *read, bool *found)
{
	char *raw_name = nullptr;
	char *raw_value = nullptr;
	if (mosquitto_property_read_string_pair(property, MQTT_PROP_USER_PROPERTY, &raw_name, &raw_value, false) == nullptr)
		return false;
	const text name(raw_name);
	const text value(raw_value);
	if (!name || !value)
		return false;
	*found = strcmp(name.get(), id_name) == 0;
	if (*found)
		read->has_id = message_id_parse(value.get(), &read->id);
	return true;
}

// The user property of this bus, the first of that name, among those that may stand there.
bool read_id(const mosquitto_property *properties, message_properties *read)
{
	bool found = false;
	bool skip_first = false;
	while (!found &&
			(properties = mosquitto_property_read_string_pair(
					 properties, MQTT_PROP_USER_PROPERTY, nullptr, nullptr, skip_first)) != nullptr) {
		if (!read_if_id(properties, read, &found))
			return false;
		skip_first = true;
	}
	return true;
}

bool read_content_type(const mosquitto_property *properties, message_properties *read)
{
	if (mosquitto_property_read_string(properties, MQTT_PROP_CONTENT_TYPE, nullptr, false) == nullptr)
		return true;
	return mosquitto_property_read_string(properties, MQTT_PROP_CONTENT_TYPE, &read->content_type, false) != nullptr &&
			read->content_type != nullptr;
}

} // namespace

int mqtt_properties_make(mosquitto_property **properties, const char *content_type, const char *id, uint32_t expiry_s)
{
	int rc = MOSQ_ERR_SUCCESS;
	if (content_type != nullptr)
		rc = mosquitto_property_add_string(properties, MQTT_PROP_CONTENT_TYPE, content_type);
	if (rc == MOSQ_ERR_SUCCESS && id != nullptr)
		rc = mosquitto_property_add_string_pair(properties, MQTT_PROP_USER_PROPERTY, id_name, id);
	if (rc == MOSQ_ERR_SUCCESS && expiry_s != 0)
		rc = mosquitto_property_add_int32(properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, expiry_s);
	return rc;
}

bool mqtt_properties_read(const mosquitto_property *properties, message_properties *read)
{
	message_properties found;
	if (!read_id(properties, &found) || !read_content_type(properties, &found))
		return false;
	if (mosquitto_property_read_int32(properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &found.left_s, false) == nullptr)
		found.left_s = UINT32_MAX;
	*read = found;
	return true;
}
