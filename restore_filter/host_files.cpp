#include "restore_filter/host_files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <climits>

#include "restore_filter/failure.h"

file_stamp stampOf(const descriptor& file) {
  struct statx status {};
  constexpr int flags = AT_EMPTY_PATH | AT_STATX_FORCE_SYNC;  // for a network file system
  if (statx(file.get(), "", flags, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) {
    throwFailure("statx", file);
  }
  file_stamp stamp;
  stamp.device = makedev(status.stx_dev_major, status.stx_dev_minor);
  stamp.identity.inode = status.stx_ino;
  if ((status.stx_mask & STATX_BTIME) != 0) {
    stamp.identity.birthSeconds = static_cast<std::uint64_t>(status.stx_btime.tv_sec);
    stamp.identity.birthNanoseconds = status.stx_btime.tv_nsec;
  }
  stamp.size = status.stx_size;
  stamp.times = {status.stx_mtime.tv_sec, status.stx_mtime.tv_nsec, status.stx_ctime.tv_sec,
                 status.stx_ctime.tv_nsec};
  return stamp;
}

void syncData(const descriptor& file) {
  if (fdatasync(file.get()) != 0) throwFailure("fdatasync", file);
}

descriptor openRegularFile(const descriptor& path, int flags) {
  struct stat status {};
  if (fstat(path.get(), &status) != 0) throwFailure("fstat", path);
  if (S_ISDIR(status.st_mode)) throw failureOf(ERROR_ACCESS_DENIED);
  if (!S_ISREG(status.st_mode)) throw failure{E_INVALIDARG};
  // O_NONBLOCK: if another process holds a lease, the open fails instead of waiting.
  descriptor file(open(procPathOf(path).c_str(), flags | O_CLOEXEC | O_NONBLOCK));
  if (!file.isOpen()) throwFailure("open", path);
  return file;
}

bool isDeleted(const struct stat& status, const descriptor& file) {
  if (status.st_nlink == 0) return true;
  // FUSE keeps a deleted file that is open under another name, with its link.
  const std::string path = pathOf(file);
  if (!path.ends_with(" (deleted)")) return false;
  struct stat named {};
  return stat(path.c_str(), &named) != 0 || named.st_ino != status.st_ino;
}

descriptor openPath(int folder, const std::string& path, int flags, std::uint64_t resolve) {
  open_how how{};
  how.flags = static_cast<unsigned>(O_PATH | O_CLOEXEC | flags);
  how.resolve = resolve;
  return descriptor(
      static_cast<int>(syscall(SYS_openat2, folder, path.c_str(), &how, sizeof(how))));
}

std::string pathOf(const descriptor& file) {
  std::string path(PATH_MAX, '\0');
  const ssize_t length = readlink(procPathOf(file).c_str(), path.data(), path.size());
  path.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  return path;
}
