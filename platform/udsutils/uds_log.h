// uds_log: what the library says, on standard error, one line a message. Any thread.
#pragma once

#include "bus_frame.h"

enum uds_log_level : int {
	UDS_LOG_ERR = 0,
	UDS_LOG_WARN = 1,
	UDS_LOG_INFO = 2,
	UDS_LOG_FRAMES = 5,
};

// Messages above this level's number are not written. 0 at start.
void uds_log_set_verbosity(int verbosity);
void uds_log(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// One frame at UDS_LOG_FRAMES; direction is "sent", "received" or "dropped".
void uds_log_frame(const char *direction, const bus_frame *frame);
