#pragma once

#include <sys/types.h>
#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "restore_filter/backing_folders.h"
#include "restore_filter/restoration.h"
#include "zan_restore_filter.h"

/// What the filter does with a message; holds the restorations that it started.
class message_handler {
 public:
  explicit message_handler(const backing_folders& folders) : backingFolders(folders) {}
  /// Ends all restorations.
  ~message_handler();
  message_handler(const message_handler&) = delete;
  message_handler& operator=(const message_handler&) = delete;

  /// Handles one message of `size` bytes from the process `sender` to the
  /// instance on the volume `device`. The sender is in this process's mount name space.
  /// Returns the status of the send; `reply` and
  /// `replySize` (bytes) are its answer. Whatever is refused is left untouched.
  HRESULT handle(pid_t sender, dev_t device, const void* message, std::size_t size,
                 ProgressInfo& reply, std::size_t& replySize);

  /// Lets go of the restorations that have ended, and of their files, also when nobody asks;
  /// why one failed is kept.
  void forgetEnded() noexcept;

 private:
  // Device, inode and time of birth: an inode's number is used again.
  using file_key = std::tuple<dev_t, ino_t, std::int64_t, std::uint32_t>;
  static HRESULT keyOf(int file, file_key& key);

  HRESULT start(file_key key, descriptor file, const std::string& backingPath,
                const RestoreStrategy& how);
  HRESULT stop(file_key key, const descriptor& file);
  HRESULT queryProgress(file_key key, const descriptor& file, const std::string& backingPath,
                        ProgressInfo& progress);

  const backing_folders& backingFolders;
  std::map<file_key, std::shared_ptr<restoration>> restorations;
  std::map<file_key, restore_failure> failures;  // of restorations that have ended
};
