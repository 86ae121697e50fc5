#include "bus_seams.h"

#include "conditions.h"

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <filesystem>

namespace
{

std::atomic<int64_t> ahead_ms{0};
std::atomic<int64_t> pause_end_ms{0}; // of the pause that was begun last
constexpr int look_ms = 2;

} // namespace

extern "C" {
int64_t __real__Z10bus_now_msv();
int64_t __wrap__Z10bus_now_msv();
int64_t __real__Z12backoff_takeP7backoffj(backoff *wait, uint32_t random);
int64_t __wrap__Z12backoff_takeP7backoffj(backoff *wait, uint32_t random);
int __real_poll(pollfd *fds, nfds_t count, int timeout_ms);
int __wrap_poll(pollfd *fds, nfds_t count, int timeout_ms);

int64_t __wrap__Z10bus_now_msv()
{
	return __real__Z10bus_now_msv() + ahead_ms;
}

int64_t __wrap__Z12backoff_takeP7backoffj(backoff *wait, uint32_t random)
{
	const int64_t pause_ms = __real__Z12backoff_takeP7backoffj(wait, random);
	pause_end_ms = __wrap__Z10bus_now_msv() + pause_ms;
	return pause_ms;
}

int __wrap_poll(pollfd *fds, nfds_t count, int timeout_ms)
{
	return __real_poll(fds, count, timeout_ms < 0 ? look_ms : std::min(timeout_ms, look_ms));
}
}

void bus_clock_advance(int64_t ms)
{
	ahead_ms += ms;
}

bool wait_condition_over_pauses(test_node *node, int condition)
{
	const auto reached = [condition](const node_record &record) {
		return !record.conditions.empty() && record.conditions.back() == condition;
	};
	for (int round = 0; round < 1000; round++) {
		if (node->wait(reached, std::chrono::milliseconds(20)))
			return true;
		bus_clock_advance(std::max(int64_t{0}, pause_end_ms - __wrap__Z10bus_now_msv()));
	}
	return false;
}

size_t open_descriptors()
{
	const std::filesystem::directory_iterator all("/proc/self/fd");
	return static_cast<size_t>(std::distance(begin(all), end(all)));
}
