// The library's clock: milliseconds of the monotonic clock.
#pragma once

#include <cstdint>

int64_t bus_now_ms();
