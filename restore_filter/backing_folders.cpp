#include "restore_filter/backing_folders.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <strings.h>

#include <algorithm>

#include "restore_filter/failure.h"
#include "restore_filter/host_files.h"

namespace {

// Windows compares names without case. This does so only for ASCII.
bool beginsWith(std::string_view path, const std::string& prefix) {
  return path.size() > prefix.size() && path[prefix.size()] == '\\' &&
         strncasecmp(path.data(), prefix.data(), prefix.size()) == 0;
}

}  // namespace

bool backing_folders::add(std::string ntPrefix, const char* path) {
  descriptor root(open(path, O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root.isOpen()) return false;
  folders.push_back({std::move(ntPrefix), std::move(root)});
  return true;
}

descriptor backing_folders::openFile(const std::string& ntPath) const {
  descriptor path;
  if (ntPath.starts_with('/')) {
    path = openPath(AT_FDCWD, ntPath, 0, 0);
  } else {
    const auto isAbove = [&](const folder& each) { return beginsWith(ntPath, each.ntPrefix); };
    const auto found = std::find_if(folders.begin(), folders.end(), isAbove);
    if (found == folders.end()) throw failureOf(ERROR_PATH_NOT_FOUND);
    std::string rest = ntPath.substr(found->ntPrefix.size() + 1);
    std::replace(rest.begin(), rest.end(), '\\', '/');
    path = openPath(found->root.get(), rest, 0, RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS);
  }
  if (!path.isOpen()) throwFailure("open", ntPath);
  return openRegularFile(path, O_RDONLY);
}
