#pragma once

#include <string>

/// Reads an entire file of /proc. False, with errno, on failure. Throws std::bad_alloc.
bool readProcFile(const char* path, std::string& content);
