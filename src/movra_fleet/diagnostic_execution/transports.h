// The CAN settings of a job's ECUs, and its CAN ports for functional requests.
#pragma once

#include <cstdint>

#include "movra_fleet/common/records.h"

// The block that the transport library is given, inside of cfg; NULL when its kind is neither 0 nor 1.
uds_transport_params *transport_params(transport_cfg *cfg);

// Registers a port with kind and interface of cfg at the tail of the job's list, unless the id is there already.
// 0, or -1 when the kind is neither 0 nor 1 or memory is short.
int add_can_port(diag_job *job, uint32_t port_id, const transport_cfg *cfg);

// Frees a record that is in no list, with its text, and clears the pointer; an empty pointer is accepted.
void free_transport_cfg(transport_cfg **cfg);
