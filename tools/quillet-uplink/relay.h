// Carries bytes both ways between the two sides until one of them ends.
#pragma once

#include "fleet_link.h"

#include <string>

// first goes to the far broker ahead of what the local side sends. Returns which side ended and why.
std::string relay_run(int local, fleet_link &link, std::string first);
