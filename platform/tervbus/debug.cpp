#include "debug.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace
{

std::atomic<debug_sink> current_sink{nullptr};

} // namespace

void debug_set_sink(debug_sink sink)
{
	current_sink.store(sink);
}

void debug_text(const char *format, ...)
{
	const debug_sink sink = current_sink.load();
	if (sink == nullptr)
		return;

	char text[512]; // a longer line is cut
	va_list arguments;
	va_start(arguments, format);
	vsnprintf(text, sizeof(text), format, arguments);
	va_end(arguments);
	sink(text);
}
