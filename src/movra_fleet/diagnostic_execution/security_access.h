// SecurityAccess (ISO 14229-1, service 0x27): from an ECU's seed to the key that is sent back.
#pragma once

#include <cstdint>

#include "movra_fleet/common/records.h"

// Has the key for a seed computed by the plug-in that the job names, and sends it on the open channel; the ECU's
// answer is the caller's to receive. The level is the sub-function of the seed request. 0 when the key was sent, else
// -1, logged.
int security_access_exchange(const diag_job *job, const transport_cfg *cfg, uint32_t seed, uint8_t level);
