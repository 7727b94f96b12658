// Any message to the stand-in restore filter. A handle is a number of this
// process's own descriptors: its standard ones, a file without a tag and a folder.

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "platform/posix/mount_table.h"
#include "restore_filter/backing_folders.h"
#include "restore_filter/message_handler.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const backing_folders folders;
  static message_handler handler(folders);
  static const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  static const int folder = open("/", O_RDONLY | O_CLOEXEC);
  static const dev_t device = findVolumeOf("/proc/self/exe").value().device;
  if (file < 0 || folder < 0) std::abort();
  ProgressInfo reply{};
  std::size_t replySize = 0;
  const HRESULT result = handler.handle(getpid(), device, data, size, reply, replySize);
  if (result != S_OK && replySize != 0) std::abort();
  if (result == S_OK && size != sizeof(ControlMessage)) std::abort();
  return 0;
}
