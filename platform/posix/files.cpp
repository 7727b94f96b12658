// Files and named streams. A named stream is opened under its path, without a final ":$DATA". On an
// NTFS mount with named streams that is the real stream, elsewhere a file NAME:STREAM beside NAME.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <windows.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/linux/descriptor.h"
#include "platform/posix/handle.h"
#include "platform/posix/host_string.h"
#include "platform/posix/last_error.h"

namespace {

constexpr std::string_view defaultStreamType = ":$DATA";

// The path, without ":$DATA", of the latest stream that this process created. If streams are
// separate files, deleting its file also deletes this one, but no stream that another process
// created.
char createdStream[PATH_MAX];

// Removes the type from a stream's name, FILE:STREAM:$DATA. False for the invalid forms, FILE:$DATA
// and FILE:STREAM:$DATA:ANYTHING.
bool dropStreamType(host_string& path) {
  std::string_view name(path.bytes, path.size);
  name.remove_prefix(name.rfind('/') + 1);
  if (name.ends_with(defaultStreamType)) {
    name.remove_suffix(defaultStreamType.size());
    path.size -= defaultStreamType.size();
    path.bytes[path.size] = '\0';
    if (name.find(':') == name.npos) return false;
  }
  return name.find(":$DATA:") == name.npos;
}

off_t offsetOf(const OVERLAPPED& place) {
  return static_cast<off_t>(place.OffsetHigh) << 32 | place.Offset;
}

bool folderExistsOf(const host_string& path) {
  const char* const slash = std::strrchr(path.bytes, '/');
  if (slash == nullptr) return path.size > 0;
  char name[PATH_MAX] = "/";
  std::memcpy(name, path.bytes, static_cast<std::size_t>(slash - path.bytes));
  struct stat folder {};
  return stat(name, &folder) == 0 && S_ISDIR(folder.st_mode);
}

HANDLE openFailed(int error, const host_string& path) {
  const bool lacksFolder = error == ENOENT && !folderExistsOf(path);
  SetLastError(lacksFolder ? ERROR_PATH_NOT_FOUND : windowsErrorFor(error));
  return INVALID_HANDLE_VALUE;
}

}  // namespace

HANDLE CreateFileW(LPCWSTR path, DWORD access, DWORD, LPSECURITY_ATTRIBUTES, DWORD disposition,
                   DWORD attributes, HANDLE) {
  host_string host(path);
  if (!host.fits) return openFailed(ENAMETOOLONG, host);
  const std::size_t givenSize = host.size;
  if (!dropStreamType(host)) return openFailed(EINVAL, host);
  const bool isStream = host.size < givenSize;

  // O_NONBLOCK, so that a FIFO does not block the program.
  int flags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  flags |= access == GENERIC_READ ? O_RDONLY : O_RDWR;
  if (disposition == CREATE_NEW) flags |= O_CREAT | O_EXCL;
  if (disposition == CREATE_ALWAYS) flags |= O_CREAT | O_TRUNC;
  if (disposition == TRUNCATE_EXISTING) flags |= O_TRUNC;
  // 0644, because whoever can write a tag chooses which file a filter reads.
  descriptor file(open(host.bytes, flags, isStream ? 0644 : 0666));
  if (!file.isOpen()) return openFailed(errno, host);

  struct stat opened {};
  const bool mayBeFolder = (attributes & FILE_FLAG_BACKUP_SEMANTICS) != 0;
  if (!mayBeFolder && fstat(file.get(), &opened) == 0 && S_ISDIR(opened.st_mode)) {
    return openFailed(EISDIR, host);
  }
  if (isStream && disposition == CREATE_NEW) {
    std::memcpy(createdStream, host.bytes, host.size + 1);
  }
  return handleOf(file.release());
}

// Writes all of the data or fails, as on a Windows disk. After a short write it tries the rest: the
// error of that attempt says why the write was short. If an attempt writes nothing, it succeeds
// with what is written so far.
BOOL WriteFile(HANDLE file, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED place) {
  *written = 0;
  while (*written < size) {
    const auto* rest = static_cast<const char*>(data) + *written;
    const int host = descriptorOf(file);
    const ssize_t count = place == nullptr
                              ? write(host, rest, size - *written)
                              : pwrite(host, rest, size - *written, offsetOf(*place) + *written);
    if (count < 0) return failsWithErrno();
    if (count == 0) break;
    *written += static_cast<DWORD>(count);
  }
  return TRUE;
}

BOOL ReadFile(HANDLE file, LPVOID data, DWORD size, LPDWORD read, LPOVERLAPPED place) {
  const ssize_t count = pread(descriptorOf(file), data, size, offsetOf(*place));
  if (count < 0) return failsWithErrno();
  *read = static_cast<DWORD>(count);
  return count > 0 || size == 0 || failsWith(ERROR_HANDLE_EOF);
}

BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER* size) {
  struct stat status {};
  if (fstat(descriptorOf(file), &status) != 0) return failsWithErrno();
  size->QuadPart = status.st_size;
  return TRUE;
}

BOOL CloseHandle(HANDLE handle) { return close(descriptorOf(handle)) == 0 || failsWithErrno(); }

BOOL CreatePipe(LPHANDLE reading, LPHANDLE writing, LPSECURITY_ATTRIBUTES, DWORD) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return failsWithErrno();
  *reading = handleOf(ends[0]);
  *writing = handleOf(ends[1]);
  return TRUE;
}

BOOL DeleteFileW(LPCWSTR path) {
  host_string host(path);
  dropStreamType(host);
  const std::string_view file(host.bytes, host.size), stream(createdStream);
  if (stream.starts_with(file) && stream.substr(file.size()).starts_with(':')) {
    unlink(createdStream);
  }
  return unlink(host.bytes) == 0 || failsWithErrno();
}
