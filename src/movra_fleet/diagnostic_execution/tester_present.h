// Keeps an ECU's session alive while a job pauses: TesterPresent (ISO 14229-1, service 0x3E) every two seconds.
#pragma once

#include "movra_fleet/common/records.h"

// Starts the keep-alive on an open channel; the first frame is sent before it returns. Always 0: a keep-alive that
// cannot be started has been logged and does not end the pause.
int start_tester_present(agent_ctx *ctx, transport_cfg *cfg);

// Ends it; when this returns, none is under way. Always 0.
int stop_tester_present(agent_ctx *ctx, transport_cfg *cfg);

// The timer's callback, on the timer service's thread (the first time on the caller's): sends one frame and drops the
// answer. The argument is the transport_cfg. Always 0.
int send_tester_present(void *cfg);
