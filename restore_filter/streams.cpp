#include "restore_filter/streams.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>

#include "platform/posix/last_error.h"
#include "platform/posix/utf16.h"
#include "zan_restore_filter.h"

namespace {

constexpr const char* recordName = "restore_filter_progress";
const HRESULT none = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
const HRESULT malformed = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);

bool isOurs(const struct stat& file) { return file.st_uid == 0 || file.st_uid == geteuid(); }

// Opens the stream `name` of a file with the open(2) `flags`; O_CREAT creates it.
HRESULT openStream(const descriptor& local, const char* name, int flags, descriptor& stream) {
  struct stat file {};
  if (fstat(local.get(), &file) != 0) return hostFailure();
  if (file.st_nlink == 0) return none;
  std::string path(PATH_MAX, '\0');
  const ssize_t length = readlink(procPathOf(local.get()).c_str(), path.data(), path.size());
  if (length < 0) return hostFailure();
  path.resize(static_cast<std::size_t>(length));
  path.append(":").append(name);

  open_how how{};
  how.flags = static_cast<unsigned>(flags) | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  how.mode = (flags & O_CREAT) != 0 ? 0644 : 0;
  how.resolve = RESOLVE_NO_SYMLINKS;  // a stranger may have put one in place of a folder
  stream =
      descriptor(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof(how))));
  if (!stream.isOpen()) return errno == ENOENT ? none : hostFailure();
  struct stat found {};
  if (fstat(stream.get(), &found) != 0) return hostFailure();
  const bool isTrusted = isOurs(file) && isOurs(found) && S_ISREG(found.st_mode) &&
                         found.st_nlink == 1 && (found.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  return isTrusted ? S_OK : HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
}

// Reads a stream that holds `size` bytes; `content` becomes longer if it holds more.
HRESULT readStream(const descriptor& local, const char* name, std::size_t size,
                   std::string& content) {
  descriptor stream;
  const HRESULT opened = openStream(local, name, O_RDONLY, stream);
  if (opened != S_OK) return opened;
  content.resize(size + 1);
  const ssize_t count = read(stream.get(), content.data(), content.size());
  if (count < 0) return hostFailure();
  content.resize(static_cast<std::size_t>(count));
  return S_OK;
}

}  // namespace

HRESULT readTagOf(const descriptor& local, std::string& backingPath) {
  static const std::uint8_t guid[] = RESTORE_TAG_GUID;
  RestoreTagRecord record;
  std::string bytes;
  const HRESULT result = readStream(local, RESTORE_TAG_STREAM_NAME_A, sizeof(record), bytes);
  if (result != S_OK) return result;
  if (bytes.size() != sizeof(record)) return malformed;
  std::memcpy(&record, bytes.data(), sizeof(record));
  const std::size_t units = record.pathLength / sizeof(record.path[0]);
  const bool isValid = record.tag == RESTORE_TAG && record.dataLength == RESTORE_TAG_DATA_LENGTH &&
                       std::equal(guid, guid + sizeof(guid), record.guid) &&
                       record.pathOffset == RESTORE_TAG_PATH_OFFSET && record.pathLength % 2 == 0 &&
                       units > 0 && units <= RESTORE_TAG_PATH_UNITS;
  if (!isValid) return malformed;
  const std::wstring path(record.path, record.path + units);
  if (path.find(L'\0') != path.npos) return malformed;
  backingPath.resize(3 * units);
  backingPath.resize(encodeUtf8(path.data(), units, backingPath.data(), backingPath.size()));
  return S_OK;
}

HRESULT progress_record::read(const descriptor& local) {
  layout found;
  std::string bytes;
  const HRESULT result = readStream(local, recordName, sizeof(found) + backingPath.size(), bytes);
  if (result != S_OK) return result;
  if (bytes.size() < sizeof(found)) return none;
  std::memcpy(&found, bytes.data(), sizeof(found));
  const bool isOfThis = found.local == content.local && found.isWhole <= 1 &&
                        std::string_view(bytes).substr(sizeof(found)) == backingPath;
  if (!isOfThis) return none;
  content = found;
  return S_OK;
}

HRESULT progress_record::open(const descriptor& local) {
  const HRESULT result = openStream(local, recordName, O_RDWR, stream);
  return result == none ? openStream(local, recordName, O_RDWR | O_CREAT | O_EXCL, stream) : result;
}

bool progress_record::write(const layout& next) const {
  std::string bytes(reinterpret_cast<const char*>(&next), sizeof(next));
  bytes += backingPath;
  errno = ENOSPC;  // for a short write
  const ssize_t written = pwrite(stream.get(), bytes.data(), bytes.size(), 0);
  return written == std::ssize(bytes) && ftruncate(stream.get(), written) == 0;
}

HRESULT progress_record::save(std::uint64_t restored, bool isWhole) {
  const layout next{content.local, isWhole ? 1U : 0U, restored};
  if (write(next) && fdatasync(stream.get()) == 0) {
    content = next;
    return S_OK;
  }
  const HRESULT failed = hostFailure();
  write(content);
  return failed;
}
