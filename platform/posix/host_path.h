#pragma once

#include <windows.h>

#include <climits>
#include <cstddef>

/// A host path, zero-terminated, made from a path in UTF-16. One that the host
/// could not open anyway, because it exceeds PATH_MAX, is empty and `fits` false.
struct host_path {
  explicit host_path(LPCWSTR path);

  bool fits;
  std::size_t size;  // bytes, without the terminating zero
  char bytes[PATH_MAX];
};
