// Takes the place of time(), in a time zone of the test's own: no machine's zone hides a mix-up of local time and UTC.
#pragma once

#include <ctime>
#include <string>

class wall_clock
{
public:
	// From here on time() gives this moment, and local time is that of the zone (as in TZ).
	wall_clock(time_t now, const char *zone);
	~wall_clock();
	wall_clock(const wall_clock &) = delete;
	wall_clock &operator=(const wall_clock &) = delete;

	void advance(time_t seconds);
	// The process looks at the zone again only when it asks for it.
	void travel(const char *zone);

private:
	bool had_zone;
	std::string old_zone;
};
