#include "movra_fleet/request_intake/version_request.h"

#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/request_intake/request_field.h"
#include "tervUtils.h"

namespace
{

int copy_query(json_object *request, json_type type, const char *key, const char *failed, diag_job *job)
{
	if (field_has_type(request, {"body", "version", key}, type) &&
			json_get_path(request, type, &job->version_query, "body", "version", key, nullptr) == 0)
		return 0;
	FLEET_TEXT(LOG_ERR, failed);
	return -1;
}

}

int parse_version_request(json_object *request, diag_job *job)
{
	// A query by UDS that is no list counts as absent.
	if (field_has_type(request, {"body", "version", "uds"}, json_type_array)) {
		job->version_kind = VERSION_UDS;
		return copy_query(request, json_type_array, "uds", "'uds' not found in version JSON message", job);
	}
	if (json_path_exists(request, json_type_object, "body", "version", "j1939", nullptr)) {
		job->version_kind = VERSION_J1939;
		return copy_query(request, json_type_object, "j1939", "'j1939' not found in version JSON message", job);
	}
	FLEET_TEXT(LOG_ERR, "No version info available");
	return -1;
}
