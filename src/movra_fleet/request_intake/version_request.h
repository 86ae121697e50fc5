// The version part of a request: by UDS requests, or from a J1939 broadcast. On the bus library's thread.
#pragma once

#include "movra_fleet/common/records.h"

// Copies the query of body.version into the job. 0, or -1, logged.
int parse_version_request(json_object *request, diag_job *job);
