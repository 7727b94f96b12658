#include "platform/linux/proc_file.h"

#include <fcntl.h>
#include <unistd.h>

#include "platform/linux/descriptor.h"

bool readProcFile(const char* path, std::string& content) {
  const descriptor file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file.isOpen()) return false;
  char chunk[16384];
  ssize_t count = 0;
  while ((count = read(file.get(), chunk, sizeof(chunk))) > 0) {
    content.append(chunk, static_cast<std::size_t>(count));
  }
  return count == 0;
}
