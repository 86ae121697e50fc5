// SIGINT and SIGTERM as a descriptor to poll.
#pragma once

// Blocks the two signals in the calling thread and those it starts; the descriptor becomes readable when one of them
// comes, or has come before. -1 when the system has none left. A handler would do as much, but ThreadSanitizer delays
// handlers, and now and then forgets one.
int stop_signals_descriptor();
