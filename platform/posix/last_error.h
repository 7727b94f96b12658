#pragma once

#include <windows.h>

#include <cerrno>

/// The Windows error code that says what the errno value `error` says;
/// ERROR_GEN_FAILURE where none does.
DWORD windowsErrorFor(int error);

/// What errno says, as an HRESULT.
inline HRESULT hostFailure() { return HRESULT_FROM_WIN32(windowsErrorFor(errno)); }
