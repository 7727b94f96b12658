#pragma once

#include <windows.h>

#include <cerrno>

/// The Windows error code that says what the errno value `error` says;
/// ERROR_GEN_FAILURE where none does.
DWORD windowsErrorFor(int error);

/// What errno says, as an HRESULT.
inline HRESULT hostFailure() { return HRESULT_FROM_WIN32(windowsErrorFor(errno)); }

/// What a call that failed returns: sets the last error to `code`, or to what errno says.
inline bool failsWith(DWORD code) {
  SetLastError(code);
  return false;
}
inline bool failsWithErrno() { return failsWith(windowsErrorFor(errno)); }
