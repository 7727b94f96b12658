#pragma once

#include <windows.h>

/// The Windows error code that says what the errno value `error` says;
/// ERROR_GEN_FAILURE where none does.
DWORD windowsErrorFor(int error);
