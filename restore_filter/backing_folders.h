#pragma once

#include <windows.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/posix/descriptor.h"

/// The folders that stand for drives and shares, and the files in them.
class backing_folders {
 public:
  /// Makes the folder `path` stand for paths that begin with `ntPrefix`, "\??\C:" or
  /// "\Device\Mup\SERVER\SHARE". False, with errno, if it cannot be opened.
  bool add(std::string ntPrefix, const char* path);

  /// Opens the regular file `ntPath` for reading, never one outside the folder that stands for its
  /// prefix. An absolute Linux path is used unchanged. S_OK, or an HRESULT that says why not.
  HRESULT openFile(const std::string& ntPath, descriptor& file) const;

 private:
  struct folder {
    std::string ntPrefix;
    descriptor root;
  };
  std::vector<folder> folders;
};

/// If the O_PATH descriptor `path` is a regular file, reopens it with the open(2) `flags`. Opens
/// no pipe or device, whose opening can block or have side effects. Returns S_OK,
/// ERROR_ACCESS_DENIED as an HRESULT for a folder, E_INVALIDARG for a pipe, a device and the like,
/// or why the open failed.
HRESULT openRegularFile(const descriptor& path, int flags, descriptor& file);
