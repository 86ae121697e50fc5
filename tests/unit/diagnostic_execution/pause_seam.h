// Takes the place of the wait that a job's pause is: it notes how long it was to last and ends it at once.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace pause_seam
{

// The lengths in seconds since the last reset.
std::vector<int64_t> pauses_s();

// Forgets them; during is called in the middle of each pause from now on, no lock held.
void reset(std::function<void()> during = {});

}
