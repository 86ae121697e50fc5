#include "movra_fleet/request_intake/request_field.h"

bool field_has_type(json_object *request, std::initializer_list<const char *> path, json_type type)
{
	json_object *node = request;
	for (const char *key : path)
		if (!json_object_object_get_ex(node, key, &node))
			return false;
	return json_object_is_type(node, type);
}
