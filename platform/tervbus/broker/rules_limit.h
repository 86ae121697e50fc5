// How large a rules file the broker plugin reads: nobody is to write a larger one, for with it the broker does not
// start.
#pragma once

#include <cstddef>

constexpr size_t rules_file_max = 16u << 20;
