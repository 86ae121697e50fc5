// The descriptors that this process has open, to see that none is left behind.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <thread>

inline size_t open_descriptors(void)
{
	const std::filesystem::directory_iterator all("/proc/self/fd");
	return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// Are there so many again? A server in another thread of this process closes its ends in its own time.
inline bool descriptors_are_back_to(size_t count)
{
	const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
	while (open_descriptors() != count && std::chrono::steady_clock::now() < end)
		std::this_thread::yield();
	return open_descriptors() == count;
}
