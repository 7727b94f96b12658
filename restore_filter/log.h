#pragma once

#include <windows.h>

#include <string>

#include "platform/posix/descriptor.h"

/// Whether the user asked for the lines below, with --log. Set before any thread starts.
inline bool isLogging = false;

/// Prints one line to standard error if isLogging: what was done to `path`, and how it ended.
void logLine(const std::string& what, const std::string& path, const std::string& end);

/// What errno says, as an HRESULT; logged as a failure of `call` on a path, or on an open file.
HRESULT hostFailure(const char* call, const std::string& path);
HRESULT hostFailure(const char* call, const descriptor& file);

/// The path of an open file, as the kernel knows it; empty, with errno, if it can't be told.
std::string pathOf(const descriptor& file);
