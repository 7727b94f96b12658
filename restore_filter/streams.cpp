#include "restore_filter/streams.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/posix/utf16.h"
#include "restore_filter/log.h"
#include "zan_restore_filter.h"

namespace {

constexpr const char* recordName = "restore_filter_progress";
const HRESULT none = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
const HRESULT malformed = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);

bool isOurs(const struct stat& file) { return file.st_uid == 0 || file.st_uid == geteuid(); }

// Opens the stream `name` of a file with the open(2) `flags`. With O_EXCL, one that exists is
// removed first.
HRESULT openStream(const descriptor& local, const char* name, int flags, descriptor& stream) {
  struct stat file {};
  if (fstat(local.get(), &file) != 0) return hostFailure("fstat", local);
  if (file.st_nlink == 0) return none;
  const std::string path = pathOf(local) + ':' + name;
  const std::size_t nameAt = path.rfind('/') + 1;

  open_how how{};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_NO_SYMLINKS;  // a stranger may have put one in place of a folder
  const descriptor folder(static_cast<int>(
      syscall(SYS_openat2, AT_FDCWD, path.substr(0, nameAt).c_str(), &how, sizeof(how))));
  if (!folder.isOpen()) return hostFailure("openat2", path);
  const char* const streamName = path.c_str() + nameAt;
  if ((flags & O_EXCL) != 0) unlinkat(folder.get(), streamName, 0);
  stream = descriptor(
      openat(folder.get(), streamName, flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644));
  if (!stream.isOpen()) return errno == ENOENT ? none : hostFailure("openat", path);
  struct stat found {};
  if (fstat(stream.get(), &found) != 0) return hostFailure("fstat", path);
  const bool isTrusted = isOurs(file) && isOurs(found) && S_ISREG(found.st_mode) &&
                         found.st_nlink == 1 && (found.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  return isTrusted ? S_OK : HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
}

// Reads at most `size` + 1 bytes. If `content` is longer than `size`, the stream is too long.
HRESULT readStream(const descriptor& local, const char* name, std::size_t size,
                   std::string& content) {
  descriptor stream;
  const HRESULT opened = openStream(local, name, O_RDONLY, stream);
  if (opened != S_OK) return opened;
  content.resize(size + 1);
  const ssize_t count = read(stream.get(), content.data(), content.size());
  if (count < 0) return hostFailure("read", stream);
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
  HRESULT result = openStream(local, RESTORE_TAG_STREAM_NAME_A, O_RDONLY, tag);
  if (result != S_OK) return result;
  result = openStream(local, recordName, O_RDWR, stream);
  const bool isOld = result == S_OK && content.restored == 0;
  if (result != none && !isOld) return result;
  // Replaces an old one: the restoration of an earlier file of this name may still write into it.
  stream = descriptor();  // on NTFS, an open stream cannot be removed
  return openStream(local, recordName, O_RDWR | O_CREAT | O_EXCL, stream);
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
  const bool isTagSynced = !tag.isOpen() || fdatasync(tag.get()) == 0;
  if (isTagSynced && write(next) && fdatasync(stream.get()) == 0) {
    tag = descriptor();
    content = next;
    return S_OK;
  }
  const HRESULT result = hostFailure("write and sync", stream);
  write(content);
  return result;
}
