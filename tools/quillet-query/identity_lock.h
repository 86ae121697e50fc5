// One run at a time under one identity: the broker throws out the earlier of two nodes with the same certificate.
#pragma once

#include <chrono>
#include <functional>
#include <string>

// Takes the lock of the identity's folder, for as long as the process lives. When another run has it, says so on
// standard error and waits, and calls waiting ten times a second. On failure false, with the cause in error.
bool lock_identity(const std::string &folder, const std::function<void(std::chrono::milliseconds waited)> &waiting,
		std::string &error);
