#include "restore_filter/host_files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <climits>

#include "restore_filter/log.h"

HRESULT stampOf(const descriptor& file, file_stamp& stamp) {
  struct statx status {};
  constexpr int flags = AT_EMPTY_PATH | AT_STATX_FORCE_SYNC;  // for a network file system
  if (statx(file.get(), "", flags, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) {
    return loggedFailure("statx", file);
  }
  const auto& [modified, changed] = std::pair(status.stx_mtime, status.stx_ctime);
  stamp = {makedev(status.stx_dev_major, status.stx_dev_minor),
           {status.stx_ino, 0, 0},
           status.stx_size,
           {modified.tv_sec, modified.tv_nsec, changed.tv_sec, changed.tv_nsec}};
  if ((status.stx_mask & STATX_BTIME) != 0) {
    stamp.identity[1] = static_cast<std::uint64_t>(status.stx_btime.tv_sec);
    stamp.identity[2] = status.stx_btime.tv_nsec;
  }
  return S_OK;
}

bool isDeleted(const struct stat& status, const descriptor& file) {
  // FUSE keeps a deleted file that is open under another name, with its link.
  const std::string path = status.st_nlink == 0 ? "" : pathOf(file);
  struct stat named {};
  return status.st_nlink == 0 ||
         (path.ends_with(" (deleted)") &&
          (stat(path.c_str(), &named) != 0 || named.st_ino != status.st_ino));
}

HRESULT syncData(const descriptor& file) {
  return fdatasync(file.get()) == 0 ? S_OK : loggedFailure("fdatasync", file);
}

descriptor openPath(int folder, const std::string& path, int flags, std::uint64_t resolve) {
  open_how how{};
  how.flags = static_cast<unsigned>(O_PATH | O_CLOEXEC | flags);
  how.resolve = resolve;
  return descriptor(
      static_cast<int>(syscall(SYS_openat2, folder, path.c_str(), &how, sizeof(how))));
}

HRESULT openRegularFile(const descriptor& path, int flags, descriptor& file) {
  struct stat status {};
  if (fstat(path.get(), &status) != 0) return loggedFailure("fstat", path);
  if (S_ISDIR(status.st_mode)) return HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
  if (!S_ISREG(status.st_mode)) return E_INVALIDARG;
  // O_NONBLOCK: if somebody holds a lease, the open fails instead of waiting.
  file = descriptor(open(procPathOf(path.get()).c_str(), flags | O_CLOEXEC | O_NONBLOCK));
  return file.isOpen() ? S_OK : loggedFailure("open", path);
}

std::string pathOf(const descriptor& file) {
  std::string path(PATH_MAX, '\0');
  const ssize_t length = readlink(procPathOf(file.get()).c_str(), path.data(), path.size());
  path.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  return path;
}
