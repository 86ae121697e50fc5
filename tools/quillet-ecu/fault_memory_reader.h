// Reads an ECU's "fault_memory" and checks it.
#pragma once

#include "fault_memory.h"
#include "json_reader.h"

// memory is written as far as the member is there; the reader keeps the error.
void fault_memory_read(json_reader *reader, const json_place &ecu, fault_memory *memory);
