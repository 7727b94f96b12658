// UTF-8 to UTF-16 and back gives the same bytes, whatever they are.

#include "platform/posix/utf16.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  std::wstring units(size, L'\0');
  units.resize(decodeUtf8(bytes.data(), size, units.data()));
  for (const wchar_t unit : units) {
    if (unit < 0 || unit > 0xFFFF) std::abort();
  }
  std::string again(3 * units.size(), '\0');
  again.resize(encodeUtf8(units.data(), units.size(), again.data(), again.size()));
  if (again != bytes) std::abort();
  return 0;
}
