#pragma once

#include <sys/resource.h>

#include "platform/posix/descriptor.h"

/// The most descriptors that handling one message opens, a start. Connections leave so many free.
constexpr int descriptorsPerMessage = 7;
/// A start leaves so many free, for itself and for one more message: when starts are refused, stops
/// and queries are still answered.
constexpr int descriptorsPerStart = 2 * descriptorsPerMessage;

/// Raises the soft limit to the hard one: a restoration takes three descriptors, at first four, so
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
