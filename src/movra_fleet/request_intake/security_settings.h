// How a job's security keys are computed, as its request says.
#pragma once

#include "movra_fleet/common/records.h"

// Copies the level, script and location of a security_access object into the job's security settings, which replace
// earlier ones. 0; or -1, logged, with the job left without settings.
int parse_security_config(diag_job *job, json_object *settings);
