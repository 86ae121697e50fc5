// How often a test repeats its case: once in the short tier, so often as it says in the long one.
#pragma once

#include <cstdlib>
#include <cstring>

inline unsigned times(unsigned repetitions)
{
	const char *tier = getenv("QUILLET_TIER");
	return tier != nullptr && strcmp(tier, "long") == 0 ? repetitions : 1;
}
