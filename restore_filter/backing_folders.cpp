#include "restore_filter/backing_folders.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>

#include "restore_filter/log.h"

namespace {

// Windows compares names without case. This does so only for ASCII.
bool beginsWith(std::string_view path, const std::string& prefix) {
  return path.size() > prefix.size() && path[prefix.size()] == '\\' &&
         strncasecmp(path.data(), prefix.data(), prefix.size()) == 0;
}

int openBeneath(int root, const std::string& path) {
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  return static_cast<int>(syscall(SYS_openat2, root, path.c_str(), &how, sizeof(how)));
}

}  // namespace

HRESULT openRegularFile(const descriptor& path, int flags, descriptor& file) {
  struct stat status {};
  if (fstat(path.get(), &status) != 0) return hostFailure("fstat", path);
  if (S_ISDIR(status.st_mode)) return HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
  if (!S_ISREG(status.st_mode)) return E_INVALIDARG;
  // O_NONBLOCK: if somebody holds a lease, the open fails instead of waiting.
  file = descriptor(open(procPathOf(path.get()).c_str(), flags | O_CLOEXEC | O_NONBLOCK));
  return file.isOpen() ? S_OK : hostFailure("open", path);
}

bool backing_folders::add(std::string ntPrefix, const char* path) {
  descriptor root(open(path, O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root.isOpen()) return false;
  folders.push_back({std::move(ntPrefix), std::move(root)});
  return true;
}

HRESULT backing_folders::openFile(const std::string& ntPath, descriptor& file) const {
  descriptor path;
  if (ntPath.starts_with('/')) {
    path = descriptor(open(ntPath.c_str(), O_PATH | O_CLOEXEC));
  } else {
    const auto isAbove = [&](const folder& each) { return beginsWith(ntPath, each.ntPrefix); };
    const auto found = std::find_if(folders.begin(), folders.end(), isAbove);
    if (found == folders.end()) return HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND);
    std::string rest = ntPath.substr(found->ntPrefix.size() + 1);
    std::replace(rest.begin(), rest.end(), '\\', '/');
    path = descriptor(openBeneath(found->root.get(), rest));
  }
  return path.isOpen() ? openRegularFile(path, O_RDONLY, file) : hostFailure("open", ntPath);
}
