// The agent from the settings of the command line to a running whole, and back. Called from the main thread.
#pragma once

#include <cstdint>

#include "movra_fleet/common/records.h"

// What the command line says. The texts are borrowed from the argument vector.
struct agent_settings {
	const char *broker_host;
	uint32_t broker_port;
	const char *data_dir; // accepted, not read
	const char *cert_dir; // required
	int32_t config_limit; // fixed, not read
	int32_t verbosity;
	const char *extra_arg; // handed to the bus client, which ignores it
};

// Starts the agent; the settings are not kept. NULL when it could not, with nothing left running.
agent_ctx *agent_init(const agent_settings *settings, const char *config_source);

// The configuration hook: the agent has no configuration file. 0.
int load_agent_config(agent_ctx *ctx, const char *config_source);

// Stops everything and frees the agent: bus client, pool, timers, in this order. NULL is accepted. 0.
int agent_deinit(agent_ctx *ctx);

// agent_deinit of what the holder points to; the holder is left as it is.
void agent_release(agent_ctx **holder);
