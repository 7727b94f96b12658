#pragma once

#include <sys/types.h>
#include <windows.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "platform/posix/descriptor.h"
#include "restore_filter/backing_folders.h"
#include "restore_filter/restoration.h"
#include "restore_filter/streams.h"
#include "zan_restore_filter.h"

/// Handles messages, and owns the restorations that they start.
class message_handler {
 public:
  explicit message_handler(const backing_folders& folders) : backingFolders(folders) {}
  /// Stops all restorations.
  ~message_handler();
  message_handler(const message_handler&) = delete;
  message_handler& operator=(const message_handler&) = delete;

  /// Handles a message of `size` bytes to the instance on the volume `device`. The process `sender`
  /// must be in this process's mount name space. Returns the status of the send; `reply` and
  /// `replySize` (bytes) are its answer. If it refuses a message, the file's content is unchanged.
  HRESULT handle(pid_t sender, dev_t device, const void* message, std::size_t size,
                 ProgressInfo& reply, std::size_t& replySize);

  /// Closes the files of the restorations that have ended. Keeps the reason of a failure.
  void forgetEnded() noexcept;

 private:
  using file_key = std::pair<dev_t, file_identity>;
  // The file of a message.
  struct target {
    descriptor path;  // O_PATH
    descriptor file;  // open for reading
    file_key key;
    std::string backingPath;  // of its tag
  };
  // The state of a file while no restoration of it runs.
  struct state {
    progress_record record;
    descriptor backing = descriptor();  // closed if the file is whole
    file_key backingKey = {};
    ProgressInfo progress = {};
  };
  // A restoration, and what it was started with; or why one failed.
  struct job {
    std::shared_ptr<restoration> work;  // null when it has ended
    std::string backingPath;
    file_key backingKey;
    HRESULT failed;
  };

  HRESULT answer(const ControlMessage& message, pid_t sender, dev_t device, target& local,
                 ProgressInfo& reply);
  static HRESULT keyOf(const descriptor& file, file_key& key);
  HRESULT find(const target& local, state& found) const;
  HRESULT start(const target& local, const RestoreStrategy& how);
  HRESULT queryProgress(const target& local, ProgressInfo& progress) const;

  const backing_folders& backingFolders;
  std::map<file_key, job> jobs;  // by local file
};
