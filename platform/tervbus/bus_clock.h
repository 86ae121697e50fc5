// The library's clock, and the broker plugin's: milliseconds since the machine's start. Nobody sets it, and it goes on
// while the machine is suspended: what is worth 60 s, or gone for 120 s, is so for everybody else too. A wait in poll
// stands still meanwhile, so that what has fallen due is found at the next thing that happens, or a wait later.
#pragma once

#include <cstdint>

int64_t bus_now_ms();
