#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/descriptor.h"

/// The folders that stand for drives and shares, and the files in them.
class backing_folders {
 public:
  /// Makes the folder `path` stand for paths that begin with `ntPrefix`, "\??\C:" or
  /// "\Device\Mup\SERVER\SHARE". False, with errno, if it cannot be opened.
  bool add(std::string ntPrefix, const char* path);

  /// Opens the regular file `ntPath` for reading, never one outside the folder that stands for its
  /// prefix. An absolute Linux path is used unchanged. Throws `failure`.
  descriptor openFile(const std::string& ntPath) const;

 private:
  struct folder {
    std::string ntPrefix;
    descriptor root;
  };
  std::vector<folder> folders;
};
