// Any message to the stand-in restore filter. A handle is a number of this process's
// own descriptors: its standard ones, a tagged file, one without a tag and a folder.

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/posix/mount_table.h"
#include "restore/tag_record.h"
#include "restore_filter/backing_folders.h"
#include "restore_filter/message_handler.h"

namespace {

// The files, and the descriptors 20 to 22 for them; gone at the end.
struct scratch {
  scratch() {
    std::string name = std::filesystem::temp_directory_path() / "fuzz_message.XXXXXX";
    folder = mkdtemp(name.data());
    std::ofstream(folder / "backing") << std::string(5000, 'x');
    std::ofstream(folder / "tagged").flush();
    RestoreTagRecord record;
    if (!buildTagRecord((folder / "backing").wstring(), {}, record)) std::abort();
    std::ofstream(folder / "tagged:" RESTORE_TAG_STREAM_NAME_A)
        .write(reinterpret_cast<const char*>(&record), sizeof(record));
    const char* const files[] = {"tagged", "backing", "."};
    for (int i = 0; i < 3; ++i) {
      const int opened = open((folder / files[i]).c_str(), O_RDONLY | O_CLOEXEC);
      if (opened < 0 || dup2(opened, 20 + i) < 0) std::abort();
    }
    device = findVolumeOf(folder.c_str()).value().device;
  }
  scratch(const scratch&) = delete;
  scratch& operator=(const scratch&) = delete;
  ~scratch() { std::filesystem::remove_all(folder); }

  std::filesystem::path folder;
  dev_t device;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const scratch files;
  static const backing_folders folders;
  static message_handler handler(folders);
  ProgressInfo reply{};
  std::size_t replySize = 0;
  const HRESULT result = handler.handle(getpid(), files.device, data, size, reply, replySize);
  if (result != S_OK && replySize != 0) std::abort();
  if (result == S_OK && size != sizeof(ControlMessage)) std::abort();
  if (reply.progress > reply.total) std::abort();
  handler.forgetEnded();
  return 0;
}
