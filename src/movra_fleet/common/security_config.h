// Release of the settings of security access, for the intake that builds them and the job that has them.
#pragma once

#include "movra_fleet/common/records.h"

// Frees the settings with their texts. NULL is accepted.
void free_security_config(security_access_config *config);
