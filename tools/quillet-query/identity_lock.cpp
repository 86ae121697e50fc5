#include "identity_lock.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <thread>

// 0, or an errno.
static int try_lock(int descriptor)
{
	return flock(descriptor, LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
}

static int wait_for_lock(int descriptor, const std::function<void(std::chrono::milliseconds waited)> &waiting)
{
	constexpr std::chrono::milliseconds pause{100};
	int problem = EWOULDBLOCK;
	for (std::chrono::milliseconds waited{0}; problem == EWOULDBLOCK; waited += pause) {
		waiting(waited);
		std::this_thread::sleep_for(pause);
		problem = try_lock(descriptor);
	}
	return problem;
}

bool lock_identity(const std::string &folder, const std::function<void(std::chrono::milliseconds waited)> &waiting,
		std::string &error)
{
	const std::string path = folder + "/query.lock";
	// Stays open: the lock goes with the process, however it ends.
	const int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
	int problem = descriptor >= 0 ? try_lock(descriptor) : errno;
	if (problem == EWOULDBLOCK) {
		fprintf(stderr, "quillet-query: another run uses the identity in %s; waiting for its lock %s\n", folder.c_str(),
				path.c_str());
		problem = wait_for_lock(descriptor, waiting);
	}
	if (problem == 0)
		return true;
	error = "the lock file " + path + " cannot be taken: " + strerror(problem) +
			"; --certs names an identity's folder that this user may write to";
	return false;
}
