// Both platform libraries with every call done at once: what remains is the agent's own time. Each stores when it was
// called, in nanoseconds of the monotonic clock.
#pragma once

#include <cstdint>

#include "tervbus.h"

struct noop_times {
	int64_t request_sent;      // entry of send_diag_command
	int64_t last_received;     // return of the last recv_diag_command
	int64_t reply_handed_over; // entry of tervbus_send_message
};

int64_t monotonic_ns();

// The client that the agent started; NULL before.
tervbus_client *noop_client();

// Waits until the agent has handed its reply over, and returns the moments of that request.
noop_times noop_wait_for_reply();
