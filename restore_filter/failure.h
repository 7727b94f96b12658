#pragma once

#include <windows.h>

#include <string>

#include "platform/linux/descriptor.h"

/// What refuses a message or ends a restoration. Thrown.
struct failure {
  HRESULT code;
};
/// A failure with a Windows error code.
inline failure failureOf(DWORD error) { return {HRESULT_FROM_WIN32(error)}; }

/// Whether --log was given. Set before any thread starts.
inline bool isLogging = false;

/// Prints one line to standard error if isLogging: what was done to `path`, and how it ended.
void logLine(const std::string& what, const std::string& path, const std::string& end);

/// Logs that `call` failed on a path or on an open file. Throws what errno says.
[[noreturn]] void throwFailure(const char* call, const std::string& path);
[[noreturn]] void throwFailure(const char* call, const descriptor& file);
