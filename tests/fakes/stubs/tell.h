// One line on standard output at once.
#pragma once

#include <cstdarg>
#include <cstdio>

__attribute__((format(printf, 1, 2))) inline void tell(const char *format, ...)
{
	va_list arguments;
	va_start(arguments, format);
	vprintf(format, arguments);
	va_end(arguments);
	putchar('\n');
	fflush(stdout);
}
