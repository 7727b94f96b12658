#pragma once

#include <sys/resource.h>

#include "platform/linux/descriptor.h"

/// Most descriptors that one message (a start) opens. Connections leave this many free, and a start
/// twice as many: when starts are refused, stops and queries are still answered.
constexpr int descriptorsPerMessage = 7;

/// Raises the soft limit to the hard one: a restoration takes three descriptors, at first five, so
/// 340 files would use up the usual soft limit.
inline void raiseDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

/// Whether the process may still open `count` descriptors. Judged by the number of the latest one,
/// because the kernel hands out the lowest free number.
inline bool leavesFree(const descriptor& latest, int count) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  return static_cast<long>(limit.rlim_cur) - 1 - latest.get() >= count;
}
