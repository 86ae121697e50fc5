// isotp_conformance INTERFACE [--exact] [NAME...]: plays the conformance table through libudsutils on a SocketCAN
// interface, or on a bus of the CAN server that QUILLET_CAN_SERVER tells of, and prints the rows that failed and a
// closing line "N passed, N failed". --exact is for a machine whose clock is virtual: times are checked to 3 ms. With
// names, only the rows whose names contain one of them.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "play_row.h"

static bool is_wanted(const row &one, char **names, int count)
{
	return count == 0 || std::any_of(names, names + count, [&](const char *name) {
		return one.name.find(name) != std::string::npos;
	});
}

int main(int argc, char **argv)
{
	if (argc < 2 || argv[1][0] == '-') {
		fprintf(stderr, "usage: %s INTERFACE [--exact] [NAME...]\n", argv[0]);
		return 2;
	}
	const bool is_exact = argc > 2 && strcmp(argv[2], "--exact") == 0;
	const int names_at = is_exact ? 3 : 2;
	std::vector<row> rows;
	for (const row &one : conformance_rows())
		if (is_wanted(one, argv + names_at, argc - names_at))
			rows.push_back(one);

	// A virtual clock skips what is waited for: one row at a time is as quick, and nothing else takes time.
	const play_place place = {.interfaces = {argv[1]},
			.tolerance = is_exact ? play_tolerance{3 * ms, 50 * ms} : play_tolerance{900 * ms, 900 * ms},
			.jobs = is_exact ? 1u : 96u,
			.is_exact = is_exact};
	int failed = 0;
	const std::vector<played_row> played = play_rows(rows, place);
	for (const played_row &one : played) {
		if (one.failure.empty())
			continue;
		failed++;
		printf("FAILED: %s: %s\n", one.played != nullptr ? one.played->name.c_str() : "all rows", one.failure.c_str());
	}
	printf("%d passed, %d failed\n", static_cast<int>(played.size()) - failed, failed);
	return failed == 0 && !played.empty() ? 0 : 1;
}
