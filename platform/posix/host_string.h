#pragma once

#include <windows.h>

#include <climits>
#include <cstddef>

/// A path or another name in the host's form, zero-terminated, made from one in UTF-16. One that
/// the host could not open anyway, because it exceeds PATH_MAX, is empty and `fits` false.
struct host_string {
  explicit host_string(LPCWSTR text);

  bool fits;
  std::size_t size;  // bytes, without the terminating zero
  char bytes[PATH_MAX];
};
