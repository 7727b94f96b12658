// The entry on Linux: prepares the process for wmain and passes the arguments in UTF-16.

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <new>

#include "platform/linux/utf16.h"
#include "platform/wmain.h"

namespace {

// If descriptor 0, 1 or 2 were closed, the next file or socket would get that number, and output
// would go into it.
bool keepStandardDescriptors() {
  pollfd standard[3] = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}};
  if (poll(standard, 3, 0) < 0) return false;
  for (const pollfd& descriptor : standard) {
    const bool isClosed = (descriptor.revents & POLLNVAL) != 0;
    if (isClosed && open("/dev/null", O_RDWR) < 0) return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (!keepStandardDescriptors()) {
    std::cerr << ZAN_PROGRAM ": out of file descriptors" << std::endl;
    return 1;
  }
  // A lost reader and a file size limit must make writes fail. As signals they would end the
  // process and leave a half-made file.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);

  std::size_t units = 0;
  for (int i = 0; i < argc; ++i) units += std::strlen(argv[i]) + 1;
  const std::unique_ptr<wchar_t[]> text(new (std::nothrow) wchar_t[units]());
  const std::unique_ptr<wchar_t*[]> arguments(new (std::nothrow)
                                                  wchar_t*[static_cast<std::size_t>(argc) + 1]());
  if (!text || !arguments) {
    std::cerr << ZAN_PROGRAM ": out of memory" << std::endl;
    return 1;
  }
  wchar_t* next = text.get();
  for (int i = 0; i < argc; ++i) {
    arguments[static_cast<std::size_t>(i)] = next;
    next += decodeUtf8(argv[i], std::strlen(argv[i]), next) + 1;
  }
  return wmain(argc, arguments.get());
}
