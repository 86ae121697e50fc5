// The log: one line per call on standard output, with a UTC time stamp to the millisecond, a coloured level
// label, the source module's name and the line of the call site. Called from every thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

enum log_level : int {
	LOG_FATAL = -1,
	LOG_ERR = 0,
	LOG_WARN = 1,
	LOG_INFO = 2,
	LOG_DBG = 3,
	LOG_D2BG = 4,
	LOG_D3BG = 5,
};

// How much is logged: a line appears when its level's number is not above this. Set once at start-up.
extern std::atomic<int32_t> verbosity;

// Writes one line, whatever the verbosity. A message of 1020 characters or more is cut and ends in "...". One
// trailing newline of the message is dropped.
void log_message(int level, const char *source_path, int line, const char *format, ...)
		__attribute__((format(printf, 4, 5)));

// The time in UTC as "%m-%d:%H:%M:%S" and milliseconds, 18 characters: what a line begins with.
void log_stamp(char *stamp, size_t size);

// The part after the last slash, or the whole text; borrowed from path.
const char *short_file_name(const char *path);

// Logs at a level: the test of the verbosity that every call site makes, then the line.
#define LOG_AT(level, source, ...) \
	do { \
		if (verbosity >= (level)) \
			log_message((level), (source), __LINE__, __VA_ARGS__); \
	} while (0)
