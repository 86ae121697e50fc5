// A bench description in a file of its own, for the length of a test.
#pragma once

#include <cstdlib>
#include <fstream>
#include <string>

#include <unistd.h>

struct bench_file {
	explicit bench_file(const std::string &text)
	{
		char name[] = "/tmp/quillet-query-bench-XXXXXX";
		const int file = mkstemp(name);
		if (file >= 0)
			close(file);
		path = name;
		std::ofstream(path) << text;
	}
	~bench_file()
	{
		unlink(path.c_str());
	}
	bench_file(const bench_file &) = delete;
	bench_file &operator=(const bench_file &) = delete;

	std::string path;
};
