// Any bytes as a command line on a machine where it can succeed, as a record of the Filter
// Manager, and as the tag that the stand-in reads.

#include <boost/algorithm/string.hpp>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fsfilter/filter_instances.h"
#include "platform/posix/utf16.h"
#include "restore_filter/tag_reader.h"
#include "tests/scripted_machine.h"

using scripted::now;

// The words are separated by zeros.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  std::wstring units(size, L'\0');
  units.resize(decodeUtf8(bytes.data(), size, units.data()));
  if (scripted::utf8(units) != bytes) std::abort();

  std::vector<std::wstring> words;
  boost::split(words, units, [](wchar_t unit) { return unit == L'\0'; });
  now = scripted::attachedMachine();
  const int status = scripted::run(words).status;
  if (status != 0 && status != 1) std::abort();
  if (!now.open.empty() || !now.files.contains(L"f")) std::abort();
  for (const auto& [file, content] : now.files) {
    if (!content.empty() && content.size() != 16376) std::abort();
  }

  now = scripted::attachedMachine();
  now.instances[0] = bytes;
  const auto found = zan::fsfilter::findFilterInstances(L"zan_restore_filter");
  if (found.size() != 3 || !now.open.empty() || !now.traces.empty()) std::abort();

  std::string path;
  const bool isTag = readTag(data, size, path) == S_OK;
  if (isTag && (path.empty() || path.find('\0') != path.npos)) std::abort();
  return 0;
}
