// The agent core's log calls. Error lines and fixed texts are formed in log_scratch, one text of 256 bytes,
// and logged from there: the error reply reports the text that stands in it. Lines with arguments below ERR
// leave it alone.
#pragma once

#include <cstddef>

#include "logger.h"

// The module name shown by every line of the agent core.
inline constexpr const char agent_log_source[] = "movra_fleet";

inline constexpr size_t log_scratch_size = 256;

// Logs an error, formed in log_scratch (cut at its size, a trailing newline kept there).
#define FLEET_ERR(...) \
	do { \
		if (verbosity >= LOG_ERR) \
			log_through_scratch(LOG_ERR, __LINE__, __VA_ARGS__); \
	} while (0)

// Logs a fixed text at any level, through log_scratch.
#define FLEET_TEXT(level, text) \
	do { \
		if (verbosity >= (level)) \
			log_through_scratch((level), __LINE__, "%s", (text)); \
	} while (0)

// Logs a line with arguments below ERR, and any line of a thread that must leave log_scratch alone.
#define FLEET_LINE(level, ...) LOG_AT(level, agent_log_source, __VA_ARGS__)

// What the first two macros call. The lock of log_scratch makes the text whole; the last writer wins.
void log_through_scratch(int level, int line, const char *format, ...) __attribute__((format(printf, 3, 4)));

// Copies the text that stands in log_scratch.
void log_scratch_read(char text[log_scratch_size]);
