#pragma once

#include <windows.h>

#include <cstdint>

// The HANDLE of a file, a pipe or a port is the number of a descriptor.
inline HANDLE handleOf(int number) {
  return reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(number));
}
inline int descriptorOf(HANDLE handle) {
  return static_cast<int>(reinterpret_cast<std::intptr_t>(handle));
}
