#include "movra_fleet/common/security_config.h"

#include <cstdlib>

void free_security_config(security_access_config *config)
{
	if (config == nullptr)
		return;
	free(config->location);
	free(config->script);
	free(config);
}
