#include "uds_log.h"

#include <atomic>
#include <cinttypes>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <unistd.h>

static std::atomic<int> log_verbosity{UDS_LOG_ERR};

void uds_log_set_verbosity(int verbosity)
{
	log_verbosity = verbosity;
}

static bool wants(int level)
{
	return level <= log_verbosity;
}

// One write a line, so that lines of several threads do not mix. A long message is cut.
void uds_log(int level, const char *format, ...)
{
	if (!wants(level))
		return;

	static constexpr char prefix[] = "udsutils: ";
	char line[512];
	const int start = snprintf(line, sizeof(line), "%s", prefix);

	va_list arguments;
	va_start(arguments, format);
	const int written = vsnprintf(line + start, sizeof(line) - static_cast<size_t>(start) - 1, format, arguments);
	va_end(arguments);
	if (written < 0)
		return;

	size_t length = static_cast<size_t>(start) + static_cast<size_t>(written);
	if (length > sizeof(line) - 2)
		length = sizeof(line) - 2;
	line[length++] = '\n';
	(void)!write(STDERR_FILENO, line, length); // nobody to tell when standard error is gone
}

void uds_log_frame(const char *direction, const bus_frame *frame)
{
	if (!wants(UDS_LOG_FRAMES))
		return;
	char data[3 * sizeof(frame->data) + 1] = "";
	for (size_t i = 0; i < frame->length && i < sizeof(frame->data); i++)
		snprintf(data + 3 * i, sizeof(data) - 3 * i, " %02X", unsigned{frame->data[i]});
	uds_log(UDS_LOG_FRAMES, frame->is_extended ? "%s %08" PRIX32 " [%u]%s" : "%s %03" PRIX32 " [%u]%s", direction,
			frame->id, unsigned{frame->length}, data);
}
