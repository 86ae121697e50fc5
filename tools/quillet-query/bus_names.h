// Checks of the names that the bus is told, before it is told them: so that each has its own line when it is wrong.
#pragma once

#include <string>

// HOST:PORT, an IPv6 address in brackets. On failure false, with what is wrong in error.
bool check_broker_name(const std::string &text, std::string &error);

// A unit address. On failure false, with what is wrong in error.
bool check_unit_name(const std::string &text, std::string &error);
