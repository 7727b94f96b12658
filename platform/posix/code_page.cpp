// Conversions between UTF-16 and UTF-8, the only code page.

#include <windows.h>

#include "platform/linux/utf16.h"

int MultiByteToWideChar(UINT, DWORD, const char* bytes, int size, LPWSTR units, int capacity) {
  if (capacity >= size)
    return static_cast<int>(decodeUtf8(bytes, static_cast<std::size_t>(size), units));
  SetLastError(ERROR_INSUFFICIENT_BUFFER);
  return 0;
}

int WideCharToMultiByte(UINT, DWORD, LPCWSTR units, int count, char* bytes, int capacity,
                        const char*, BOOL*) {
  const auto room = static_cast<std::size_t>(capacity);
  const std::size_t size = encodeUtf8(units, static_cast<std::size_t>(count), bytes, room);
  if (size <= room) return static_cast<int>(size);
  SetLastError(ERROR_INSUFFICIENT_BUFFER);
  return 0;
}
