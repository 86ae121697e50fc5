#include "stop_signals.h"

#include <csignal>

#include <sys/signalfd.h>

int stop_signals_descriptor()
{
	sigset_t set;
	if (sigemptyset(&set) != 0 || sigaddset(&set, SIGINT) != 0 || sigaddset(&set, SIGTERM) != 0 ||
			sigprocmask(SIG_BLOCK, &set, nullptr) != 0)
		return -1;
	return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}
