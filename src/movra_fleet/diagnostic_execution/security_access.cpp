// The plug-in is loaded and unloaded for every seed: a requester may bring a new one at any time.
#include "movra_fleet/diagnostic_execution/security_access.h"

#include <dlfcn.h>

#include <cstdio>

#include "ecusecalgo.h"
#include "movra_fleet/common/agent_log.h"
#include "scoped.h"

namespace
{

constexpr uint8_t security_access_sid = 0x27;

void close_plugin(void *plugin)
{
	(void)dlclose(plugin); // nothing can be done about a library that stays
}

void log_loader_error()
{
	const char *text = dlerror();
	FLEET_ERR("%s", text != nullptr ? text : "unknown loader error");
}

// The settings, or NULL, logged, when the job has none to load a plug-in with.
const security_access_config *usable_settings(const diag_job *job)
{
	if (job->security == nullptr) {
		FLEET_ERR("No Security Algorithm information found");
		return nullptr;
	}
	if (job->security->location == nullptr) {
		FLEET_ERR("No Security Algorithm location found");
		return nullptr;
	}
	return job->security;
}

void *load_plugin(const security_access_config *settings)
{
	char path[1024] = "";
	(void)snprintf(path, sizeof path, "%s/libecusecalgo.so", settings->location); // a longer path is cut
	void *plugin = dlopen(path, RTLD_LAZY);
	if (plugin == nullptr)
		log_loader_error();
	return plugin;
}

int compute_key(void *plugin, const security_access_config *settings, uint32_t seed, uint32_t *key)
{
	auto calculate = reinterpret_cast<decltype(&esr_calculate_key)>(dlsym(plugin, "esr_calculate_key"));
	if (calculate == nullptr) {
		log_loader_error();
		return -1;
	}
	*key = calculate(seed, settings->script, static_cast<uint8_t>(settings->level));
	FLEET_LINE(LOG_INFO, "Generated Key: %x\n", *key);
	return 0;
}

int send_key(const transport_cfg *cfg, uint8_t level, uint32_t key)
{
	const uint8_t request[6] = {
			security_access_sid,
			static_cast<uint8_t>(level + 1),
			static_cast<uint8_t>(key >> 24),
			static_cast<uint8_t>(key >> 16),
			static_cast<uint8_t>(key >> 8),
			static_cast<uint8_t>(key),
	};
	if (send_diag_command(cfg->handle, request, sizeof request, cfg->params.kind) < 0) {
		FLEET_ERR("Security key could not sent to ECU!!");
		return -1;
	}
	return 0;
}

}

int security_access_exchange(const diag_job *job, const transport_cfg *cfg, uint32_t seed, uint8_t level)
{
	const security_access_config *settings = usable_settings(job);
	if (settings == nullptr)
		return -1;
	scoped<void, close_plugin> plugin(load_plugin(settings));
	if (!plugin)
		return -1;
	uint32_t key = 0;
	if (compute_key(plugin.get(), settings, seed, &key) != 0)
		return -1;
	return send_key(cfg, level, key);
}
