// Standard output. It is never a Windows console here: a terminal takes UTF-8,
// like a file.

#include <unistd.h>
#include <windows.h>

HANDLE GetStdHandle(DWORD) {
  return reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(STDOUT_FILENO));
}

BOOL GetConsoleMode(HANDLE, LPDWORD) { return FALSE; }

BOOL WriteConsoleW(HANDLE, LPCVOID, DWORD, LPDWORD, LPVOID) { return FALSE; }
