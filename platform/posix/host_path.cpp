#include "platform/posix/host_path.h"

#include <cwchar>

#include "platform/posix/utf16.h"

host_path::host_path(LPCWSTR path) {
  size = encodeUtf8(path, std::wcslen(path), bytes, sizeof(bytes) - 1);
  fits = size < sizeof(bytes);
  if (!fits) size = 0;
  bytes[size] = '\0';
}
