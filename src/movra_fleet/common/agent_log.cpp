// The scratch text has a lock of its own, the last in the order of locks: nothing else is taken while it is held.
#include "movra_fleet/common/agent_log.h"

#include <pthread.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "held_lock.h"

namespace
{

pthread_mutex_t scratch_lock = PTHREAD_MUTEX_INITIALIZER;
char log_scratch[log_scratch_size]; // guarded by scratch_lock

}

void log_through_scratch(int level, int line, const char *format, ...)
{
	char text[log_scratch_size] = "";
	va_list arguments;
	va_start(arguments, format);
	(void)vsnprintf(text, sizeof text, format, arguments); // cut on purpose
	va_end(arguments);

	{
		held_lock lock = hold(&scratch_lock);
		memcpy(log_scratch, text, sizeof text);
	}
	log_message(level, agent_log_source, line, "%s", text);
}

void log_scratch_read(char text[log_scratch_size])
{
	held_lock lock = hold(&scratch_lock);
	memcpy(text, log_scratch, log_scratch_size);
}
