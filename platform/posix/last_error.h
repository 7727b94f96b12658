#pragma once

#include <windows.h>

#include <cerrno>

#include "platform/linux/error_code.h"

/// Sets the last error to `code`, and returns false for the failed call to return.
inline bool failsWith(DWORD code) {
  SetLastError(code);
  return false;
}
/// The same with the code for errno.
inline bool failsWithErrno() { return failsWith(windowsErrorFor(errno)); }
