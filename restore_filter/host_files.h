#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <tuple>

#include "platform/linux/descriptor.h"

/// A file of a volume: its inode and, since inodes are reused, its birth time. A birth time of 0:
/// the file system records none.
struct file_identity {
  std::uint64_t inode = 0;
  std::uint64_t birthSeconds = 0;
  std::uint64_t birthNanoseconds = 0;

  bool hasBirth() const { return birthSeconds != 0 || birthNanoseconds != 0; }
  bool operator==(const file_identity&) const = default;
};

/// What statx(2) says of a file. Two are equal if it is the same file and has not changed.
struct file_stamp {
  dev_t device = 0;
  file_identity identity = {};
  std::uint64_t size = 0;               // bytes
  std::array<std::int64_t, 4> times{};  // mtime and ctime, in seconds and nanoseconds

  auto key() const {
    return std::tuple(device, identity.inode, identity.birthSeconds, identity.birthNanoseconds);
  }
  bool operator==(const file_stamp&) const = default;
};

// These throw `failure` when a system call fails.

file_stamp stampOf(const descriptor& file);

/// fdatasync(2).
void syncData(const descriptor& file);

/// If the O_PATH descriptor `path` is a regular file, reopens it with the open(2) `flags`. Opens
/// no pipe or device, whose opening can block or have side effects. Throws ERROR_ACCESS_DENIED for
/// a folder, E_INVALIDARG for a pipe, a device and the like.
descriptor openRegularFile(const descriptor& path, int flags);

// These do not throw.

/// Whether an open file, with this status, was deleted.
bool isDeleted(const struct stat& status, const descriptor& file);

/// Opens a path below `folder` (a descriptor, or AT_FDCWD) with O_PATH and `flags`, and with the
/// RESOLVE_ flags of openat2(2). Not open, with errno, on failure.
descriptor openPath(int folder, const std::string& path, int flags, std::uint64_t resolve);

/// A path to the file on which a descriptor of this process is open.
inline std::string procPathOf(const descriptor& file) {
  return "/proc/self/fd/" + std::to_string(file.get());
}

/// The path of an open file, as the kernel knows it; empty, with errno, if it can't be told.
std::string pathOf(const descriptor& file);
