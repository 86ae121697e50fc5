// Values are taken as the text of whatever the request holds, so that "16" and 16 are the same.
#include "movra_fleet/diagnostic_execution/j1939_settings.h"

#include <cstdlib>
#include <cstring>

#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/common/request_number.h"
#include "scoped.h"

namespace
{

constexpr int decimal = 10;
constexpr int hexadecimal = 16;

void free_signal(j1939_signal *signal)
{
	if (signal == nullptr)
		return;
	free(signal->name);
	free(signal);
}

using owned_signal = scoped<j1939_signal, free_signal>;
using owned_settings = scoped<j1939_settings, free_j1939_settings>;

template <typename T>
T *new_record()
{
	T *record = static_cast<T *>(calloc(1, sizeof(T)));
	if (record == nullptr)
		FLEET_ERR("Memory Allocation failed");
	return record;
}

// The value of a key, borrowed, or NULL, logged, when it is missing or null.
json_object *value_of(json_object *object, const char *key)
{
	json_object *value = nullptr;
	if (!json_object_object_get_ex(object, key, &value) || value == nullptr)
		FLEET_ERR("no '%s' key in JSON", key);
	return value;
}

bool read_text(json_object *object, const char *key, char **copy)
{
	json_object *value = value_of(object, key);
	if (value == nullptr)
		return false;
	const char *text = json_object_get_string(value); // NULL only when memory is short
	*copy = text != nullptr ? strdup(text) : nullptr;
	if (*copy == nullptr)
		FLEET_ERR("Memory Allocation failed");
	return *copy != nullptr;
}

bool read_number(json_object *object, const char *key, int base, uint32_t *number)
{
	json_object *value = value_of(object, key);
	if (value == nullptr)
		return false;
	const char *text = json_object_get_string(value); // NULL only when memory is short
	*number = text != nullptr ? request_number(text, base) : 0;
	return true;
}

// A factor or an offset is read as a whole number: 0.5 is 0, kept as it is.
j1939_signal *parse_signal(json_object *object)
{
	owned_signal signal(new_record<j1939_signal>());
	uint32_t offset = 0;
	uint32_t factor = 0;
	if (!signal || !read_text(object, "name", &signal->name) ||
			!read_number(object, "start_bit", decimal, &signal->start_bit) ||
			!read_number(object, "bitlength", decimal, &signal->bitlength) ||
			!read_number(object, "offset", decimal, &offset) || !read_number(object, "factor", decimal, &factor))
		return nullptr;
	signal->offset = static_cast<int32_t>(offset);
	signal->factor = factor;
	return signal.release();
}

bool parse_signals(json_object *object, j1939_signal **tail)
{
	json_object *signals = value_of(object, "signal");
	if (signals == nullptr)
		return false;
	if (!json_object_is_type(signals, json_type_array)) {
		FLEET_ERR("no 'signal' key in JSON");
		return false;
	}
	size_t count = json_object_array_length(signals);
	for (size_t i = 0; i < count; ++i) {
		*tail = parse_signal(json_object_array_get_idx(signals, i));
		if (*tail == nullptr)
			return false;
		tail = &(*tail)->next;
	}
	return true;
}

}

j1939_settings *parse_j1939_settings(json_object *object)
{
	owned_settings settings(new_record<j1939_settings>());
	if (!settings || !read_text(object, "ifname", &settings->ifname) ||
			!read_number(object, "id", hexadecimal, &settings->id) ||
			!read_number(object, "timeout", decimal, &settings->timeout) || !parse_signals(object, &settings->signals))
		return nullptr;
	return settings.release();
}

void free_j1939_settings(j1939_settings *settings)
{
	if (settings == nullptr)
		return;
	while (settings->signals != nullptr) {
		j1939_signal *signal = settings->signals;
		settings->signals = signal->next;
		free_signal(signal);
	}
	free(settings->ifname);
	free(settings);
}
