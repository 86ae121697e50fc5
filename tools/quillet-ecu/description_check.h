// What a description must satisfy beyond the shape of its members: references that exist, names and identifiers that
// differ. Used while a description is read.
#pragma once

#include "description.h"
#include "json_reader.h"

// Keeps an error for the first thing that is wrong inside one ECU.
void description_check_ecu(json_reader *reader, const json_place &place, const ecu_description &ecu);

// Keeps an error for the first thing that is wrong between ECUs.
void description_check_bench(json_reader *reader, const json_place &root, const bench_description &bench);
