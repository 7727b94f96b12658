// The debug trace: one datagram per line, to the listener under the name that a debug monitor has
// on Windows.

#include <windows.h>

#include <algorithm>
#include <cwchar>

#include "platform/posix/abstract_socket.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/utf16.h"

void OutputDebugStringW(LPCWSTR text) {
  char line[4096];
  const std::size_t units = std::min(std::wcslen(text), sizeof(line) / 3);
  const std::size_t size = encodeUtf8(text, units, line, sizeof(line));
  const descriptor monitor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const abstract_address address("DBWIN_BUFFER");
  sendto(monitor.get(), line, size, MSG_DONTWAIT | MSG_NOSIGNAL, address.get(), address.size());
}
