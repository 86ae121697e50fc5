#include "movra_fleet/common/request_number.h"

#include <cstdlib>

uint32_t request_number(const char *text, int base)
{
	constexpr long long largest = UINT32_MAX;
	long long value = strtoll(text, nullptr, base); // beyond its own range it ends at its limits
	if (value > largest || value < -largest)
		return UINT32_MAX;
	return static_cast<uint32_t>(value);
}
