#include "bus_clock.h"

#include <chrono>

int64_t bus_now_ms()
{
	using namespace std::chrono;
	return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}
