#include "identity_lock.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>

static bool wait_for_lock(int descriptor)
{
	int result = 0;
	do {
		result = flock(descriptor, LOCK_EX);
	} while (result != 0 && errno == EINTR);
	return result == 0;
}

bool lock_identity(const std::string &folder, std::string &error)
{
	const std::string path = folder + "/query.lock";
	// Stays open: the lock goes with the process, however it ends.
	int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
	bool locked = descriptor >= 0 && flock(descriptor, LOCK_EX | LOCK_NB) == 0;
	if (!locked && descriptor >= 0 && errno == EWOULDBLOCK) {
		fprintf(stderr, "quillet-query: another run uses the identity in %s; waiting for its lock %s\n", folder.c_str(),
				path.c_str());
		locked = wait_for_lock(descriptor);
	}
	if (!locked)
		error = "the lock file " + path + " cannot be taken: " + strerror(errno) +
				"; --certs names an identity's folder that this user may write to";
	return locked;
}
