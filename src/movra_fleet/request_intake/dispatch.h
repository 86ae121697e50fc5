// Request intake: from one message of the bus to one queued diagnostic job. On the bus library's thread.
#pragma once

#include "movra_fleet/common/records.h"

// The bus client's message callback (mobus_message_cb); ctx is the agent_ctx. Parses the text as JSON and dispatches
// it. A message that cannot be used is logged and dropped. Always 0.
int handle_bus_message(const char *text, size_t length, const address_entry *sender, void *ctx);

// Checks a request, builds its job and queues it for the worker. The request stays the caller's; the job keeps copies
// only. 0 when a job was queued, -1 when the request was dropped, which has been logged.
int dispatch_request(json_object *request, const address_entry *sender, agent_ctx *ctx);
