// ReadDTCInformation (ISO 14229-1, service 0x19) from one ECU or from all ECUs of a request at once.
#pragma once

#include "movra_fleet/common/records.h"

// Opens the job's channels, sends its DTC request, collects the answers, reports them, and closes the channels. 0 when
// the report was handed over, else -1, logged. On the worker thread.
int read_dtc_information(agent_ctx *ctx, diag_job *job);
