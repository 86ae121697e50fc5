#include "bus_names.h"

#include <mosquitto.h>

#include <algorithm>
#include <cstring>

namespace
{

bool spoils_a_topic(char character)
{
	const unsigned char byte = static_cast<unsigned char>(character);
	return byte < 0x20 || byte == 0x7F || character == '/' || character == '+' || character == '#';
}

} // namespace

bool bus_name_usable(std::string_view name)
{
	if (name.empty() || name.size() > name_max)
		return false;
	if (std::any_of(name.begin(), name.end(), spoils_a_topic))
		return false;
	return mosquitto_validate_utf8(name.data(), static_cast<int>(name.size())) == MOSQ_ERR_SUCCESS;
}

bus_name bus_name_of(std::string_view name)
{
	bus_name copy;
	memcpy(copy.text, name.data(), std::min(name.size(), name_max));
	return copy;
}

bool bus_name_is_dm_client(const char *unit)
{
	return strcmp(unit, dm_client_name) == 0;
}
