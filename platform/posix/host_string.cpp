#include "platform/posix/host_string.h"

#include <cwchar>

#include "platform/linux/utf16.h"

host_string::host_string(LPCWSTR text) {
  size = encodeUtf8(text, std::wcslen(text), bytes, sizeof(bytes) - 1);
  fits = size < sizeof(bytes);
  if (!fits) size = 0;
  bytes[size] = '\0';
}
