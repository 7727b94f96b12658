#pragma once

#include <windows.h>

namespace zan {

/// Owns one handle that CloseHandle closes; INVALID_HANDLE_VALUE when closed.
class file_handle {
 public:
  explicit file_handle(HANDLE opened) noexcept : handle(opened) {}
  ~file_handle() { close(); }
  file_handle(const file_handle&) = delete;
  file_handle& operator=(const file_handle&) = delete;

  bool isOpen() const noexcept { return handle != INVALID_HANDLE_VALUE; }
  HANDLE get() const noexcept { return handle; }

  /// Closes the handle, once. For owners to whom the order of closing matters.
  void close() noexcept {
    if (!isOpen()) return;
    CloseHandle(handle);
    handle = INVALID_HANDLE_VALUE;
  }

 private:
  HANDLE handle;
};

}  // namespace zan
