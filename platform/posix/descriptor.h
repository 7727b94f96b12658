#pragma once

#include <unistd.h>
#include <windows.h>

#include <string>
#include <utility>

// The HANDLE of a file, a pipe or a port is the number of a descriptor.
inline HANDLE handleOf(int number) {
  return reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(number));
}
inline int descriptorOf(HANDLE handle) {
  return static_cast<int>(reinterpret_cast<std::intptr_t>(handle));
}

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

/// A path to the file on which a descriptor of this process is open.
inline std::string procPathOf(int number) { return "/proc/self/fd/" + std::to_string(number); }
