// ReadDTCInformation and ClearDiagnosticInformation: the reports on an ECU's fault memory, in the formats of
// ISO 14229-1.
#pragma once

#include "uds_state.h"

// Is this one of the reports that a fault memory can answer, 01 to 17?
bool dtc_report_exists(uint32_t report);

uds_nrc uds_serve_read_dtc(const uds_request &request);
uds_nrc uds_serve_clear_dtc(const uds_request &request);
