#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <windows.h>

#include <array>
#include <cstdint>
#include <string>
#include <utility>

#include "platform/posix/descriptor.h"

/// A file of a volume: the number of its inode and, since that is reused, its time of birth in
/// seconds and nanoseconds. Both are 0 where the file system keeps none.
using file_identity = std::array<std::uint64_t, 3>;

/// What statx(2) says of a file. Two are equal if it is the same file and has not changed.
struct file_stamp {
  dev_t device = 0;
  file_identity identity = {};
  std::uint64_t size = 0;               // bytes
  std::array<std::int64_t, 4> times{};  // mtime and ctime, in seconds and nanoseconds

  auto key() const { return std::pair(device, identity); }
  bool operator==(const file_stamp&) const = default;
};

/// Returns S_OK, or why statx failed as an HRESULT.
HRESULT stampOf(const descriptor& file, file_stamp& stamp);

/// Whether an open file, with this status, was deleted.
bool isDeleted(const struct stat& status, const descriptor& file);

/// fdatasync(2). S_OK, or why it failed.
HRESULT syncData(const descriptor& file);

/// Opens a path below `folder` (a descriptor, or AT_FDCWD) with O_PATH and `flags`, and with the
/// RESOLVE_ flags of openat2(2). Not open, with errno, on failure.
descriptor openPath(int folder, const std::string& path, int flags, std::uint64_t resolve);

/// If the O_PATH descriptor `path` is a regular file, reopens it with the open(2) `flags`. Opens
/// no pipe or device, whose opening can block or have side effects. Returns S_OK,
/// ERROR_ACCESS_DENIED as an HRESULT for a folder, E_INVALIDARG for a pipe, a device and the like,
/// or why the open failed.
HRESULT openRegularFile(const descriptor& path, int flags, descriptor& file);

/// The path of an open file, as the kernel knows it; empty, with errno, if it can't be told.
std::string pathOf(const descriptor& file);
