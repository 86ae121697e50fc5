// Turns an agent's reply into text for people.
#pragma once

#include <string>

#include "request_target.h"

// The reply to a request, several lines, each ended. The request tells which ECUs were asked and what a routine's
// commands were; names gives ECUs a name beside their identifier. A reply of no known form is shown as it is.
std::string decode_reply(const std::string &request, const std::string &reply, const ecu_names &names);
