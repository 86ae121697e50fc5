// The DTC part of a request: which report, and the bytes that follow its sub-function. On the bus library's thread.
// What was stored in the job before a failure is freed with the job.
#pragma once

#include <cstdint>

#include "movra_fleet/common/records.h"

// Reads body.uds into the job's DTC fields. 0, or -1, logged.
int parse_dtc_request(json_object *request, diag_job *job);

// Reads a data-record object into the job's data bytes. 0, or -1, logged unless only the record's type is unknown.
int parse_data_record(json_object *record, diag_job *job);

// Puts an array of status bit names together; names that are none are skipped. 0, or -1, logged.
int parse_status_mask(json_object *names, uint32_t *mask);
