#pragma once

#include <windows.h>

#include <string>

namespace zan::fsfilter {

/// One connection to a communication port of the restore filter. The destructor closes it. A failed
/// connection is traced, not thrown, and makes every send fail. See
/// FilterConnectCommunicationPort, FilterSendMessage.
class filter_port {
 public:
  /// Connects to the port of this name, for example
  /// "\zan_restore_filter-Volume{...}", with a context of 40 zero bytes.
  explicit filter_port(const std::wstring& name);
  ~filter_port();
  filter_port(const filter_port&) = delete;
  filter_port& operator=(const filter_port&) = delete;

  /// Sends `inputLength` bytes and waits until the filter has handled them. Returns how many bytes
  /// it wrote to `output`, which may be null with length 0. Throws zan::except::result_exception on
  /// any HRESULT but S_OK, and if the object is not connected. The connection stays open.
  DWORD sendMessage(void* input, DWORD inputLength, void* output, DWORD outputLength);

 private:
  std::wstring portName;  // empty when not connected
  HANDLE portHandle;      // INVALID_HANDLE_VALUE when not connected
};

}  // namespace zan::fsfilter
