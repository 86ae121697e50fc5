#include "wall_clock.h"

#include <atomic>
#include <cstdlib>

namespace
{

constexpr time_t real = -1;
std::atomic<time_t> moment = real;

}

wall_clock::wall_clock(time_t now, const char *zone)
{
	const char *old = getenv("TZ");
	had_zone = old != nullptr;
	old_zone = had_zone ? old : "";
	travel(zone);
	tzset();
	moment = now;
}

wall_clock::~wall_clock()
{
	moment = real;
	if (had_zone)
		setenv("TZ", old_zone.c_str(), 1);
	else
		unsetenv("TZ");
	tzset();
}

void wall_clock::advance(time_t seconds)
{
	moment += seconds;
}

void wall_clock::travel(const char *zone)
{
	setenv("TZ", zone, 1);
}

extern "C" time_t __real_time(time_t *result);
extern "C" time_t __wrap_time(time_t *result);

time_t __wrap_time(time_t *result)
{
	time_t now = moment;
	if (now == real)
		return __real_time(result);
	if (result != nullptr)
		*result = now;
	return now;
}
