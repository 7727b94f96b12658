#pragma once

#include <windows.h>

#include <string>

#include "platform/posix/descriptor.h"

/// Whether --log was given. Set before any thread starts.
inline bool isLogging = false;

/// Prints one line to standard error if isLogging: what was done to `path`, and how it ended.
void logLine(const std::string& what, const std::string& path, const std::string& end);

/// Logs that `call` failed on a path or on an open file. Returns what errno says, as an HRESULT.
HRESULT loggedFailure(const char* call, const std::string& path);
HRESULT loggedFailure(const char* call, const descriptor& file);
