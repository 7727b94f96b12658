#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <utility>

/// Owns one file descriptor; -1 when it has none.
class descriptor {
 public:
  explicit descriptor(int opened = -1) : number(opened) {}
  ~descriptor() {
    if (number >= 0) close(number);
  }
  descriptor(descriptor&& other) noexcept : number(std::exchange(other.number, -1)) {}
  descriptor& operator=(descriptor&& other) noexcept {
    std::swap(number, other.number);
    return *this;
  }

  int get() const { return number; }
  bool isOpen() const { return number >= 0; }

 private:
  int number;
};

/// Whether the process may still open `count` descriptors, as seen from the one that was
/// opened last: they are handed out lowest first.
inline bool leavesFree(const descriptor& last, int count) {
  rlimit most{};
  getrlimit(RLIMIT_NOFILE, &most);
  return static_cast<long>(most.rlim_cur) - 1 - last.get() >= count;
}
