// Standard output. It is never a Windows console here: a terminal takes UTF-8, like a file.

#include <unistd.h>
#include <windows.h>

#include "platform/posix/handle.h"

HANDLE GetStdHandle(DWORD) { return handleOf(STDOUT_FILENO); }

BOOL GetConsoleMode(HANDLE, LPDWORD) { return FALSE; }

BOOL WriteConsoleW(HANDLE, LPCVOID, DWORD, LPDWORD, LPVOID) { return FALSE; }
