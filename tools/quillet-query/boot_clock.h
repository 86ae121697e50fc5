// The clock that goes on while the machine sleeps, as the time of a message on the bus does.
#pragma once

#include <cstdint>

// Milliseconds since the machine was started.
int64_t boot_now_ms();
