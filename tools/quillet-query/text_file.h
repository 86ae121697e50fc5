#pragma once

#include <string>

// Reads a whole file; "-" is standard input. On failure false, with errno set.
bool read_text_file(const std::string &path, std::string &text);
