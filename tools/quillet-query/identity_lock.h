// One run at a time under one identity: the broker throws out the earlier of two nodes with the same certificate.
#pragma once

#include <string>

// Takes the lock of the identity's folder, for as long as the process lives. When another run has it, says so on
// standard error and waits. On failure false, with the cause in error.
bool lock_identity(const std::string &folder, std::string &error);
