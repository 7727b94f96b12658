#pragma once

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
  /// The number, which the caller closes from now on.
  int release() { return std::exchange(number, -1); }

 private:
  int number;
};
