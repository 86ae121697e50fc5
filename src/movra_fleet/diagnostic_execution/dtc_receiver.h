// One ECU's answer to a DTC request, received on a thread of its own that listens before the request goes out.
//
// The thread and the job share a dtc_receiver record, which goes with the last of them: a receiver that nobody waits
// for touches neither the job nor the agent, and ends at its next step. Receivers leave the log scratch alone.
#pragma once

#include "movra_fleet/common/records.h"

// Starts a receiver on the transport's open channel. One that cannot be started is logged; its ECU counts as silent.
void dtc_receiver_start(agent_ctx *ctx, transport_cfg *cfg);

// Waits for the transport's receiver and hands its answer, if any, to the transport. Nothing when there is none. The
// agent's stop ends the wait: an answer in segments may take minutes. The receiver is to be abandoned then.
void dtc_receiver_join(transport_cfg *cfg);

// Lets the transport's receiver end by itself. Nothing when there is none.
void dtc_receiver_abandon(transport_cfg *cfg);

// The thread's body: waits for the final answer. A chain of pending answers has no limit of its own; the agent's stop
// ends it. The argument is the dtc_receiver, of which one share is the thread's. Always NULL.
void *dtc_response_receiver(void *receiver);
