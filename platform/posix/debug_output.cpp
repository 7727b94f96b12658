// The debug trace: each line is one datagram to the abstract socket DBWIN_BUFFER, named like the
// buffer of a debug monitor on Windows. Lines are cut after 1365 code units.

#include <windows.h>

#include <algorithm>
#include <cwchar>

#include "platform/linux/abstract_socket.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/utf16.h"

void OutputDebugStringW(LPCWSTR text) {
  char line[4096];
  const std::size_t units = std::min(std::wcslen(text), sizeof(line) / 3);
  const std::size_t size = encodeUtf8(text, units, line, sizeof(line));
  const descriptor monitor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const abstract_address address("DBWIN_BUFFER");
  sendto(monitor.get(), line, size, MSG_DONTWAIT | MSG_NOSIGNAL, address.get(), address.size());
}
