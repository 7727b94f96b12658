#pragma once

#include <windows.h>

#include <cerrno>

/// The Windows error code for the errno value `error`; ERROR_GEN_FAILURE if there is none.
DWORD windowsErrorFor(int error);

/// errno as an HRESULT.
inline HRESULT hostFailure() { return HRESULT_FROM_WIN32(windowsErrorFor(errno)); }

/// Sets the last error to `code`, and returns false for the failed call to return.
inline bool failsWith(DWORD code) {
  SetLastError(code);
  return false;
}
/// The same with the code for errno.
inline bool failsWithErrno() { return failsWith(windowsErrorFor(errno)); }
