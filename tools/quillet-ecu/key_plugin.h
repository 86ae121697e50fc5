// Key plug-ins: libecusecalgo.so of a directory. A plug-in stays loaded until the process ends, because the servers
// keep its function.
#pragma once

#include <string>

#include "uds_server.h"

// The key function of the plug-in in this directory; NULL with the loader's text in error.
uds_key_function key_plugin_load(const std::string &directory, std::string *error);

// The directory of libraries that belongs to this program: lib beside its own bin. Empty if it cannot be told.
std::string key_plugin_default_directory();
