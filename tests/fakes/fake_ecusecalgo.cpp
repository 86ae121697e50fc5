// A key plug-in whose keys tell what it was called with: the script "seed" gives the seed, "level" the level, any other
// script a fixed key.
#include <cstring>

#include "ecusecalgo.h"

extern "C" uint32_t esr_calculate_key(uint32_t seed, const char *script, uint8_t level)
{
	if (strcmp(script, "seed") == 0)
		return seed;
	if (strcmp(script, "level") == 0)
		return level;
	return 0xA1B2C3D4u;
}
