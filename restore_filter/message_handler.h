#pragma once

#include <sys/types.h>
#include <windows.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "platform/linux/descriptor.h"
#include "restore_filter/backing_folders.h"
#include "restore_filter/host_files.h"
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

  /// Closes the files of the restorations that have ended. Remembers where they were stopped, or
  /// why they failed.
  void closeEnded();

 private:
  // The file of a message, and its backing file.
  struct target {
    descriptor path;  // O_PATH
    descriptor file;  // open for reading
    file_stamp stamp;
    std::string backingPath;  // in its tag
    descriptor backing;
    file_stamp backingStamp;
  };

  // These throw `failure`.
  void answer(const ControlMessage& message, pid_t sender, dev_t device, target& local,
              ProgressInfo& reply);
  void start(target& local, const RestoreStrategy& how);
  void stop(target& local);
  ProgressInfo queryProgress(target& local) const;
  void openBacking(target& local) const;
  std::shared_ptr<restoration> restorationOf(const target& local) const;

  const backing_folders& backingFolders;
  std::map<decltype(file_stamp().key()), std::shared_ptr<restoration>> jobs;  // by local file
};
