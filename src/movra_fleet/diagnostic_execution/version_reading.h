// An ECU's version as a text: by UDS requests, or out of a J1939 broadcast.
#pragma once

#include "movra_fleet/common/records.h"

// Reads the version that the job asks for and sends the version reply. 0 when a version was obtained, whatever became
// of the reply, else -1, logged unless there was nothing to ask. On the worker thread.
int read_version(agent_ctx *ctx, diag_job *job);
