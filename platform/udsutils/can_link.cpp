#include "can_link.h"

#include <cstdlib>
#include <ctime>
#include <poll.h>

#include "canserver_link.h"
#include "socketcan_link.h"

// The CAN server that interface names are buses of, "host:port", or NULL; borrowed from the environment.
static const char *can_server(void)
{
	const char *server = getenv("QUILLET_CAN_SERVER");
	return server != nullptr && *server != '\0' ? server : nullptr;
}

int can_link_open(can_link *link, const char *ifname, can_link_filter filter, uint32_t id)
{
	if (const char *server = can_server())
		return canserver_link_open(link, server, ifname, filter, id);
	return socketcan_link_open(link, ifname, filter, id);
}

void can_link_close(can_link *link)
{
	if (link->close != nullptr)
		link->close(link->state);
	*link = {};
}

void can_link_detach(can_link *link)
{
	if (link->detach != nullptr)
		link->detach(link->state);
	*link = {};
}

int can_link_exists(const char *ifname)
{
	if (const char *server = can_server())
		return canserver_bus_exists(server, ifname);
	return socketcan_exists(ifname);
}

// A bus of a CAN server is up when it can be opened there.
int can_link_is_up(const char *ifname)
{
	if (const char *server = can_server())
		return canserver_bus_exists(server, ifname);
	return socketcan_is_up(ifname);
}

int64_t can_link_monotonic_us(void)
{
	timespec now{};
	(void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail with this clock
	return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

// In nanoseconds, because separation times are fractions of a millisecond.
void can_link_poll(int descriptor, int wake_descriptor, int64_t deadline_us)
{
	const int64_t left_us = deadline_us - can_link_monotonic_us();
	if (left_us <= 0)
		return;
	constexpr int64_t longest_us = INT64_C(60) * 1000000; // the caller comes back
	timespec left{};
	const int64_t wait_us = left_us < longest_us ? left_us : longest_us;
	left.tv_sec = static_cast<time_t>(wait_us / 1000000);
	left.tv_nsec = static_cast<long>(wait_us % 1000000 * 1000);
	pollfd polled[] = {{descriptor, POLLIN, 0}, {wake_descriptor, POLLIN, 0}};
	(void)ppoll(polled, 2, &left, nullptr); // whatever ended it, the caller looks again
}
