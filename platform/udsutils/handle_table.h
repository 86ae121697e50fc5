// handle_table: the numbers that stand for open channels: counted up, not used again. Any thread.
#pragma once

#include "channel_driver.h"

// Takes the driver over, also when it fails (then it is freed): a handle above 0, or -1 with a message.
int handle_table_add(channel_driver *driver);

// The channel of a handle, which lives until the handle_table_leave that belongs to this call; NULL for an unknown
// handle.
channel_driver *handle_table_enter(int handle);
void handle_table_leave(int handle);

// The handle is unknown from here on, and its channel ends: threads inside it fail at once, and the last one to leave
// frees it. 0, or -1 for an unknown handle.
int handle_table_end(int handle);
