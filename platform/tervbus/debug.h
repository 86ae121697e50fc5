// The library's debug output: lines of text to the function that the process gave to tervbus_init_ll. Any thread.
#pragma once

using debug_sink = void (*)(const char *text);

// NULL for silence.
void debug_set_sink(debug_sink sink);

void debug_text(const char *format, ...) __attribute__((format(printf, 1, 2)));
