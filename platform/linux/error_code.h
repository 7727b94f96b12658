#pragma once

#include <windows.h>

#include <cerrno>

/// The Windows error code for the errno value `error`; ERROR_GEN_FAILURE if there is none.
DWORD windowsErrorFor(int error);

/// errno as an HRESULT.
inline HRESULT hostFailure() { return HRESULT_FROM_WIN32(windowsErrorFor(errno)); }
