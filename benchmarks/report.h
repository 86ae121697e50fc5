// The clock, medians and ratios: single timings on a shared machine say little.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <vector>

inline int64_t now_ns()
{
	timespec now = {};
	clock_gettime(CLOCK_MONOTONIC, &now);
	return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// The value below which that share (0 to 1) of the samples lies; the samples are in nanoseconds, the result is in µs.
inline double quantile_us(std::vector<int64_t> samples, double share)
{
	if (samples.empty())
		return 0;
	size_t index = std::min(samples.size() - 1, static_cast<size_t>(share * static_cast<double>(samples.size())));
	std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(index), samples.end());
	return static_cast<double>(samples[index]) / 1000.0;
}

inline void print_row(FILE *out, const char *what, const std::vector<int64_t> &samples)
{
	fprintf(out, "%-64s p50 %9.1f us   p99 %9.1f us   n %zu\n", what, quantile_us(samples, 0.5),
			quantile_us(samples, 0.99), samples.size());
	fflush(out);
}
