// The only state is the verbosity: every line is put together on the caller's stack and leaves in one printf,
// so that lines of different threads never mix.
#include "logger.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

std::atomic<int32_t> verbosity{2};

namespace
{

constexpr size_t text_size = 1024;
constexpr size_t text_bound = text_size - 1; // what vsnprintf is given
constexpr size_t longest_whole = 1019;       // a longer message is marked as cut
constexpr int flush_index = 4;               // INFO: it and everything more severe reach the output at once

#define COLOURED(code, word) "\x1b[1;" code "m" word "\x1b[1;0m"

// By level + 2. "ERR " and "DBG " are filled up to the width of the others.
constexpr const char *log_level_labels[] = {
		"",
		COLOURED("31", "FATAL"),
		COLOURED("31", "ERR "),
		COLOURED("33", "WARN"),
		COLOURED("32", "INFO"),
		COLOURED("35", "DBG "),
		COLOURED("36", "D2BG"),
		COLOURED("36", "D3BG"),
		"",
		"",
};
constexpr int label_count = sizeof log_level_labels / sizeof *log_level_labels;
static_assert(label_count == 10);

// n is the length that the message would have had. What was cut off cannot be marked or trimmed at its own
// place, so for a message beyond the buffer the marks go to the last characters kept.
void finish_text(char *text, size_t n)
{
	if (n > text_bound)
		n = text_bound;
	if (n != 0 && text[n - 1] == '\n')
		text[n - 1] = '\0';
	if (n > longest_whole)
		memcpy(text + n - 4, "...", 4);
}

}

const char *short_file_name(const char *path)
{
	const char *slash = strrchr(path, '/');
	return slash != nullptr ? slash + 1 : path;
}

void log_stamp(char *stamp, size_t size)
{
	struct timespec now = {};
	struct tm utc = {};
	(void)timespec_get(&now, TIME_UTC); // fails only for an unknown time base
	gmtime_r(&now.tv_sec, &utc);
	size_t used = strftime(stamp, size, "%m-%d:%H:%M:%S", &utc);
	(void)snprintf(stamp + used, size - used, ".%03ld",
			now.tv_nsec / 1000000); // bounded; the stamp has 18 characters
}

void log_message(int level, const char *source_path, int line, const char *format, ...)
{
	char stamp[32] = "";
	log_stamp(stamp, sizeof stamp);

	char text[text_size] = "";
	va_list arguments;
	va_start(arguments, format);
	int length = vsnprintf(text, text_bound, format, arguments);
	va_end(arguments);
	finish_text(text, length > 0 ? static_cast<size_t>(length) : 0);

	int index = level < -2 ? 0 : level > label_count - 3 ? label_count - 1 : level + 2;
	printf("[%s] %s %s:%d %s\n", stamp, log_level_labels[index], short_file_name(source_path), line, text);
	if (index <= flush_index)
		fflush(stdout);
}
