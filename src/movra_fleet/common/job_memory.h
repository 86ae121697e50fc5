// What a waiting job costs.
#pragma once

#include <cstdint>

#include "movra_fleet/common/records.h"

// About how many bytes a job keeps beside its commands, which are bounded by their number: its texts, its DTC data and,
// many times the size of its text, its version query.
uint32_t job_memory(const diag_job *job);
