// Any bytes as a tag record.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "restore_filter/tag_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string path;
  if (readTag(data, size, path) == S_OK && (path.empty() || path.find('\0') != std::string::npos)) {
    std::abort();
  }
  return 0;
}
