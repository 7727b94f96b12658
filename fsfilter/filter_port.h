#pragma once

#include <windows.h>

#include <string>

namespace zan::fsfilter {

/// One connection to a communication port of the restore filter, closed by the
/// destructor. A failed connection is traced, not thrown: it shows at the first
/// send. See FilterConnectCommunicationPort, FilterSendMessage.
class filter_port {
 public:
  /// Connects to the port of this name, for example
  /// "\zan_restore_filter-Volume{...}", with a context of 40 zero bytes.
  explicit filter_port(const std::wstring& name);
  ~filter_port();
  filter_port(const filter_port&) = delete;
  filter_port& operator=(const filter_port&) = delete;

  /// Sends `inputLength` bytes and waits until the filter has handled them.
  /// Returns the count of bytes it wrote to `output` (may be null, of length 0).
  /// Throws zan::except::result_exception on any HRESULT but S_OK, also when the
  /// object is not connected; the connection stays as it was.
  DWORD sendMessage(void* input, DWORD inputLength, void* output, DWORD outputLength);

 private:
  std::wstring portName;  // empty when not connected
  HANDLE portHandle;      // INVALID_HANDLE_VALUE when not connected
};

}  // namespace zan::fsfilter
