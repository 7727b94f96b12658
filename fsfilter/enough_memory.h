#pragma once

#include <new>

namespace zan::fsfilter {

/// Runs `action`, which can fail in one way, by running out of memory. False when it
/// did; for functions that report that as a result.
template <typename Action>
bool hasMemoryFor(Action action) noexcept {
  try {
    action();
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace zan::fsfilter
