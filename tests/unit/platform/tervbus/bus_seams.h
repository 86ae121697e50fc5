// The library's clock in the test's hand: it runs as time does, and the test moves it forward. The bus thread looks at
// it every few milliseconds, whatever it waits for. A program that has bus_seams.cpp links it with the wraps of
// tervbus_seam_test and quillet_test_support.
#pragma once

#include "support/test_node.h"

#include <cstdint>

void bus_clock_advance(int64_t ms);

// Moves the clock over the pauses between attempts, and over nothing else, until the condition is the last one told:
// false after 20 s.
bool wait_condition_over_pauses(test_node *node, int condition);

// Descriptors that this process has open.
size_t open_descriptors();
