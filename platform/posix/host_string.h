#pragma once

#include <windows.h>

#include <climits>
#include <cstddef>

/// A path or another name in the host's encoding, zero-terminated, made from UTF-16. If it exceeds
/// PATH_MAX, so that the host could not open it, it is empty and `fits` is false.
struct host_string {
  explicit host_string(LPCWSTR text);

  bool fits;
  std::size_t size;  // bytes, without the terminating zero
  char bytes[PATH_MAX];
};
