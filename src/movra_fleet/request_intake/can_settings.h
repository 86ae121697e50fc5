// The CAN / ISO-TP settings of a request.
#pragma once

#include "movra_fleet/common/records.h"

// Reads body.can into transport records at the tail of the job's list: one for the ECU that the job's target address
// names, or one for each element when it is "-1", with a CAN port for each distinct functional address. 0, or -1 when
// the settings of the one ECU are not complete or the list of all is missing; both are logged.
int parse_can_config(json_object *request, diag_job *job);
