#include "movra_fleet/request_intake/security_settings.h"

#include <cstdlib>
#include <cstring>

#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/common/request_number.h"
#include "movra_fleet/common/security_config.h"
#include "scoped.h"
#include "tervUtils.h"

namespace
{

constexpr int hexadecimal = 16;

bool read_required(json_object *settings, const char *key, const char *missing, const char **text)
{
	bool found = json_get_path(settings, json_type_string, text, key, nullptr) == 0;
	if (!found)
		FLEET_TEXT(LOG_ERR, missing);
	return found;
}

bool copy_required(json_object *settings, const char *key, const char *missing, char **copy)
{
	const char *text = nullptr;
	if (!read_required(settings, key, missing, &text))
		return false;
	*copy = strdup(text);
	if (*copy == nullptr)
		FLEET_TEXT(LOG_ERR, "Memory Allocation failed");
	return *copy != nullptr;
}

}

int parse_security_config(diag_job *job, json_object *settings)
{
	free_security_config(job->security);
	job->security = nullptr;

	scoped<security_access_config, free_security_config> config(
			static_cast<security_access_config *>(calloc(1, sizeof(security_access_config))));
	if (!config) {
		FLEET_TEXT(LOG_ERR, "Memory Allocation failed");
		return -1;
	}
	const char *level = nullptr;
	if (!read_required(settings, "level", "level not found in JSON message", &level))
		return -1;
	config->level = request_number(level, hexadecimal);
	if (!copy_required(settings, "script", "script not found in JSON message", &config->script) ||
			!copy_required(settings, "location", "location not found in JSON message", &config->location))
		return -1;
	job->security = config.release();
	return 0;
}
