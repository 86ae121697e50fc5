// What requests and replies know of ReadDTCInformation (ISO 14229-1, service 0x19): names of report types and of status
// bits, and what each report type takes.
#pragma once

#include <cstdint>

#include "movra_fleet/common/records.h"

// The name of a report type by its sub-function number; NULL for 0 and for numbers without a name.
const char *dtc_report_type_name(uint32_t number);

// The number of a report type by its exact name, logged when found; 0 when there is none of this name.
uint32_t dtc_report_type_from_name(const char *name);

// Does a request for this report carry a data record? Also true for numbers without a name.
bool dtc_report_type_needs_record(uint32_t number);

// The bit of the DTC status byte that a name stands for; 0 for other texts.
uint8_t dtc_status_mask_bit(const char *name);

// Has the job a report type that the agent sends, with exactly as many data bytes as it takes? 0, or -1.
int validate_dtc_request(const diag_job *job);
