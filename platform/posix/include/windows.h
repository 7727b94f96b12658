#pragma once

// The part of <windows.h> that the program uses, with Windows' own types, values and layouts.
// platform/posix/ implements it with the host's files, mounts and sockets. The tests link a
// scripted implementation instead. A wchar_t holds one UTF-16 code unit.

#include <cstdint>

#define WINAPI

using BOOL = int;
using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using USHORT = std::uint16_t;
using UINT = std::uint32_t;
using DWORD = std::uint32_t;
using ULONG = std::uint32_t;
using HRESULT = std::int32_t;
using HANDLE = void*;
using LPVOID = void*;
using LPCVOID = const void*;
using LPHANDLE = HANDLE*;
using LPDWORD = DWORD*;
using LPWSTR = wchar_t*;
using LPCWSTR = const wchar_t*;

struct SECURITY_ATTRIBUTES;
using LPSECURITY_ATTRIBUTES = SECURITY_ATTRIBUTES*;
union LARGE_INTEGER {
  std::int64_t QuadPart;
};
/// Where to read or write.
struct OVERLAPPED {
  std::uintptr_t Internal, InternalHigh;
  DWORD Offset, OffsetHigh;
  HANDLE hEvent;
};
using LPOVERLAPPED = OVERLAPPED*;

constexpr BOOL FALSE = 0;
constexpr BOOL TRUE = 1;
constexpr DWORD MAX_PATH = 260;
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(-1)))

constexpr DWORD GENERIC_READ = 0x80000000;
constexpr DWORD GENERIC_WRITE = 0x40000000;
constexpr DWORD GENERIC_ALL = 0x10000000;
constexpr DWORD FILE_SHARE_READ = 1;
constexpr DWORD FILE_SHARE_WRITE = 2;
constexpr DWORD FILE_SHARE_DELETE = 4;
constexpr DWORD CREATE_NEW = 1;
constexpr DWORD CREATE_ALWAYS = 2;
constexpr DWORD OPEN_EXISTING = 3;
constexpr DWORD TRUNCATE_EXISTING = 5;
constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
constexpr DWORD FILE_FLAG_BACKUP_SEMANTICS = 0x02000000;
constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x1000;
constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x200;
constexpr DWORD STD_OUTPUT_HANDLE = static_cast<DWORD>(-11);
constexpr UINT CP_UTF8 = 65001;

constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
constexpr DWORD ERROR_TOO_MANY_OPEN_FILES = 4;
constexpr DWORD ERROR_ACCESS_DENIED = 5;
constexpr DWORD ERROR_INVALID_HANDLE = 6;
constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr DWORD ERROR_INVALID_DATA = 13;
constexpr DWORD ERROR_NO_MORE_FILES = 18;
constexpr DWORD ERROR_WRITE_PROTECT = 19;
constexpr DWORD ERROR_GEN_FAILURE = 31;
constexpr DWORD ERROR_SHARING_VIOLATION = 32;
constexpr DWORD ERROR_HANDLE_EOF = 38;
constexpr DWORD ERROR_NOT_SUPPORTED = 50;
constexpr DWORD ERROR_FILE_EXISTS = 80;
constexpr DWORD ERROR_DISK_FULL = 112;
constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
constexpr DWORD ERROR_INVALID_NAME = 123;
constexpr DWORD ERROR_BUSY = 170;
constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;
constexpr DWORD ERROR_FILE_TOO_LARGE = 223;
constexpr DWORD ERROR_MORE_DATA = 234;
constexpr DWORD ERROR_NO_MORE_ITEMS = 259;
constexpr DWORD ERROR_FILE_INVALID = 1006;
constexpr DWORD ERROR_IO_DEVICE = 1117;
constexpr DWORD ERROR_NOT_FOUND = 1168;
constexpr DWORD ERROR_DISK_QUOTA_EXCEEDED = 1295;
constexpr DWORD ERROR_CANT_RESOLVE_FILENAME = 1921;

constexpr HRESULT S_OK = 0;
constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000E);
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057);
constexpr int HRESULT_CODE(HRESULT result) { return result & 0xFFFF; }
constexpr HRESULT HRESULT_FROM_WIN32(DWORD code) {
  return static_cast<HRESULT>(code == 0 ? 0 : 0x80070000 | (code & 0xFFFF));
}

extern "C" {

/// The code of this thread's latest failure, and how a call sets it.
DWORD WINAPI GetLastError();
void WINAPI SetLastError(DWORD code);
DWORD WINAPI FormatMessageW(DWORD flags, LPCVOID source, DWORD code, DWORD language, LPWSTR text,
                            DWORD size, void* inserts);

HANDLE WINAPI CreateFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                          DWORD disposition, DWORD attributes, HANDLE templateFile);
BOOL WINAPI WriteFile(HANDLE file, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED place);
BOOL WINAPI ReadFile(HANDLE file, LPVOID data, DWORD size, LPDWORD read, LPOVERLAPPED place);
BOOL WINAPI GetFileSizeEx(HANDLE file, LARGE_INTEGER* size);
BOOL WINAPI CloseHandle(HANDLE handle);
BOOL WINAPI CreatePipe(LPHANDLE reading, LPHANDLE writing, LPSECURITY_ATTRIBUTES security,
                       DWORD size);
BOOL WINAPI DeleteFileW(LPCWSTR path);

BOOL WINAPI GetVolumePathNameW(LPCWSTR path, LPWSTR mountPoint, DWORD size);
BOOL WINAPI GetVolumeNameForVolumeMountPointW(LPCWSTR mountPoint, LPWSTR volumeName, DWORD size);
HANDLE WINAPI FindFirstVolumeW(LPWSTR volumeName, DWORD size);
BOOL WINAPI FindNextVolumeW(HANDLE volumes, LPWSTR volumeName, DWORD size);
BOOL WINAPI FindVolumeClose(HANDLE volumes);
DWORD WINAPI QueryDosDeviceW(LPCWSTR name, LPWSTR devices, DWORD size);

void WINAPI OutputDebugStringW(LPCWSTR text);

HANDLE WINAPI GetStdHandle(DWORD which);
BOOL WINAPI GetConsoleMode(HANDLE output, LPDWORD mode);
BOOL WINAPI WriteConsoleW(HANDLE output, LPCVOID units, DWORD count, LPDWORD written,
                          LPVOID reserved);
int WINAPI MultiByteToWideChar(UINT codePage, DWORD flags, const char* bytes, int size,
                               LPWSTR units, int capacity);
int WINAPI WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR units, int count, char* bytes,
                               int capacity, const char* defaultChar, BOOL* usedDefaultChar);
}
