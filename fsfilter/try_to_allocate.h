#pragma once

#include <new>

namespace zan::fsfilter {

/// Runs `action`; false when memory ran out, for functions that report that as a result.
template <typename Action>
bool tryToAllocate(Action action) noexcept {
  try {
    action();
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace zan::fsfilter
