// Any command line, on a machine where it can succeed.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/posix/utf16.h"
#include "platform/scripted/attached_machine.h"
#include "platform/scripted/machine.h"

// The words are separated by zeros.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::wstring> words(1);
  std::wstring units(size, L'\0');
  units.resize(decodeUtf8(reinterpret_cast<const char*>(data), size, units.data()));
  for (const wchar_t unit : units) {
    if (unit == L'\0') {
      words.emplace_back();
    } else {
      words.back() += unit;
    }
  }
  scripted::now = scripted::attachedMachine();
  const int status = scripted::run(words).status;
  if (status != 0 && status != 1) std::abort();
  if (!scripted::now.open.empty() || !scripted::now.files.contains(L"f")) std::abort();
  for (const auto& [stream, content] : scripted::now.content) {
    if (content.size() != 16376) std::abort();
  }
  return 0;
}
