// The two forms differ on purpose: for one ECU a missing key fails the request; in the list of all ECUs it ends the
// list, and the request goes on with those read so far.
#include "movra_fleet/request_intake/can_settings.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/common/request_number.h"
#include "movra_fleet/diagnostic_execution/transports.h"
#include "scoped.h"
#include "tervUtils.h"

namespace
{

constexpr const char all_ecus[] = "-1";
constexpr size_t most_ecus = 256; // of one request
constexpr int hexadecimal = 16;

// Where the keys of one ECU are: at body.can of a request, or in an element of the list itself.
struct settings_source {
	json_object *root;
	bool is_request;
};

void free_cfg(transport_cfg *cfg)
{
	free_transport_cfg(&cfg);
}

bool read_text(const settings_source &source, const char *key, const char **text)
{
	int result = source.is_request ? json_get_path(source.root, json_type_string, text, "body", "can", key, nullptr)
								   : json_get_path(source.root, json_type_string, text, key, nullptr);
	return result == 0;
}

bool read_required(const settings_source &source, const char *key, const char *missing, const char **text)
{
	bool found = read_text(source, key, text);
	if (!found)
		FLEET_TEXT(LOG_ERR, missing);
	return found;
}

// An optional key that is missing leaves the text of the key before it, which is converted again: kept as it is.
uint32_t read_optional(const settings_source &source, const char *key, const char **text)
{
	(void)read_text(source, key, text);
	return request_number(*text, hexadecimal);
}

// A new record with everything but the functional address; *text is the text read last. NULL, logged, on failure.
transport_cfg *read_transport(const settings_source &source, const char **text)
{
	scoped<transport_cfg, free_cfg> cfg(static_cast<transport_cfg *>(calloc(1, sizeof(transport_cfg))));
	if (!cfg) {
		FLEET_TEXT(LOG_ERR, "Memory Allocation failed");
		return nullptr;
	}
	uds_transport_params *params = &cfg->params;
	if (!read_required(source, "ifname", "'ifname' not found in JSON message", text))
		return nullptr;
	(void)snprintf(params->ifname, sizeof params->ifname, "%s", *text); // a longer name is cut
	FLEET_LINE(LOG_INFO, "Interface name: %s\n", params->ifname);

	if (!read_required(source, "phy-req-id", "phy-req-id not found in JSON message", text))
		return nullptr;
	params->phy_req_id = request_number(*text, hexadecimal);
	cfg->phy_req_id_text = strdup(*text);
	if (cfg->phy_req_id_text == nullptr) {
		FLEET_TEXT(LOG_ERR, "Memory Allocation failed");
		return nullptr;
	}
	if (!read_required(source, "phy-resp-id", "phy-resp-id not found in JSON message", text))
		return nullptr;
	params->phy_resp_id = request_number(*text, hexadecimal);
	params->st_min = static_cast<uint8_t>(read_optional(source, "st-min", text)); // the low 8 bits
	params->bsize = static_cast<uint8_t>(read_optional(source, "bsize", text));
	return cfg.release();
}

int parse_one_ecu(json_object *request, diag_job *job)
{
	const char *text = nullptr;
	transport_cfg *cfg = read_transport({request, true}, &text);
	if (cfg == nullptr)
		return -1;
	transport_cfg **tail = &job->transport;
	while (*tail != nullptr)
		tail = &(*tail)->next;
	*tail = cfg;
	return 0;
}

// False ends the list.
bool append_element(json_object *element, diag_job *job, transport_cfg ***tail)
{
	settings_source source = {element, false};
	const char *text = nullptr;
	transport_cfg *cfg = read_transport(source, &text);
	if (cfg == nullptr)
		return false;
	uint32_t func_addr = read_optional(source, "func-addr", &text);
	(void)add_can_port(job, func_addr, cfg); // an ECU without its port is still asked by its own identifiers
	**tail = cfg;
	*tail = &cfg->next;
	return true;
}

int parse_all_ecus(json_object *request, diag_job *job)
{
	json_object *list = nullptr;
	if (json_get_path(request, json_type_array, &list, "body", "can", nullptr) != 0) {
		FLEET_TEXT(LOG_ERR, "'can_dev' not found in JSON message");
		return -1;
	}
	transport_cfg **tail = &job->transport;
	while (*tail != nullptr)
		tail = &(*tail)->next;
	size_t count = json_object_array_length(list);
	for (size_t i = 0; i < count; i++) {
		if (i == most_ecus) {
			FLEET_TEXT(LOG_ERR, "too many elements in body.can");
			break;
		}
		if (!append_element(json_object_array_get_idx(list, i), job, &tail))
			break;
	}
	(void)json_object_put(list); // the copy's last reference
	return 0;
}

}

int parse_can_config(json_object *request, diag_job *job)
{
	if (strcmp(job->target_address, all_ecus) == 0)
		return parse_all_ecus(request, job);
	return parse_one_ecu(request, job);
}
