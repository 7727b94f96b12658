#pragma once

#include <sys/resource.h>

#include "platform/posix/descriptor.h"

/// Raises the limit as far as it goes: a restoration takes three descriptors, and the usual soft
/// limit would be used up by 300 files.
inline void raiseDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

/// Whether the process may still open `count` descriptors, as seen from the latest: they are
/// handed out lowest first.
inline bool leavesFree(const descriptor& latest, int count) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  return static_cast<long>(limit.rlim_cur) - 1 - latest.get() >= count;
}
