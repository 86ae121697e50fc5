// The raw UDS commands of a routine request.
#pragma once

#include "movra_fleet/common/records.h"

// Reads body.routine.commands into the job's command list and, once a command asks for security access, the security
// settings. A security access without usable settings ends the list early and is no failure. 0; or -1, logged, when
// the request is to be dropped, with what was read left in the job.
int parse_routine(json_object *request, diag_job *job);
