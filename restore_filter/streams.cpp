#include "restore_filter/streams.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/posix/utf16.h"
#include "restore_filter/log.h"
#include "zan_restore_filter.h"

namespace {

constexpr const char* recordName = "restore_filter_progress";
const HRESULT none = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
const HRESULT malformed = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);

bool isOurs(const struct stat& file) { return file.st_uid == 0 || file.st_uid == geteuid(); }

bool isSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Opens the stream `name` of a file with the open(2) `flags`. With O_EXCL, one that exists is
// removed first.
HRESULT openStream(const descriptor& local, const char* name, int flags, descriptor& stream) {
  struct stat file {};
  struct stat found {};
  if (fstat(local.get(), &file) != 0) return loggedFailure("fstat", local);
  if (file.st_nlink == 0) return none;
  const std::string path = pathOf(local);
  const std::size_t nameAt = path.rfind('/') + 1;
  const std::string fileName = path.substr(nameAt);
  const std::string streamName = fileName + ':' + name;
  // A stranger may have put a symbolic link in place of a folder.
  const descriptor folder =
      openPath(AT_FDCWD, path.substr(0, nameAt), O_DIRECTORY, RESOLVE_NO_SYMLINKS);
  if (!folder.isOpen()) return errno == ENOENT ? none : loggedFailure("openat2", path);
  // The kernel's path may be outdated, or lead elsewhere: to another mount.
  if (fstatat(folder.get(), fileName.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? none : loggedFailure("fstatat", path);
  }
  if (!isSameFile(found, file)) return none;

  if ((flags & O_EXCL) != 0) unlinkat(folder.get(), streamName.c_str(), 0);
  stream = descriptor(
      openat(folder.get(), streamName.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644));
  // There is no stream whose name is impossible: too long, or with a colon.
  const bool isAbsent = errno == ENOENT || errno == ENAMETOOLONG || errno == EINVAL;
  if (!stream.isOpen() && isAbsent && (flags & O_CREAT) == 0) return none;
  if (!stream.isOpen()) return loggedFailure("openat", path + ':' + name);
  if (fstat(stream.get(), &found) != 0) return loggedFailure("fstat", stream);
  const bool isTrusted = isOurs(file) && isOurs(found) && S_ISREG(found.st_mode) &&
                         found.st_nlink == 1 && (found.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  if (!isTrusted) return HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
  if (isSameFile(found, file)) return S_OK;  // a real named stream
  file_stamp stamp;
  const HRESULT result = stampOf(local, stamp);
  const bool hasBirth = stamp.identity[1] != 0 || stamp.identity[2] != 0;
  return result != S_OK || hasBirth ? result : HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
}

// Reads at most `size` + 1 bytes. If `content` is longer than `size`, the stream is too long.
HRESULT readFrom(const descriptor& stream, std::size_t size, std::string& content) {
  content.resize(size + 1);
  const ssize_t count = read(stream.get(), content.data(), content.size());
  content.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return count < 0 ? loggedFailure("read", stream) : S_OK;
}

}  // namespace

HRESULT readTag(const descriptor& local, std::string& backingPath) {
  static const std::uint8_t guid[] = RESTORE_TAG_GUID;
  RestoreTagRecord record;
  std::string bytes;
  descriptor stream;
  HRESULT result = openStream(local, RESTORE_TAG_STREAM_NAME_A, O_RDONLY, stream);
  if (result == S_OK) result = readFrom(stream, sizeof(record), bytes);
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
  std::wstring decoded(backingPath.size(), L'\0');
  decoded.resize(decodeUtf8(backingPath.data(), backingPath.size(), decoded.data()));
  return decoded == path ? S_OK : malformed;  // a surrogate that stands for no byte
}

HRESULT progress_record::read(const descriptor& local, std::uint64_t size) {
  descriptor opened;
  HRESULT result = openStream(local, recordName, O_RDONLY, opened);
  std::string found;
  if (result == S_OK) result = readFrom(opened, sizeof(content) + backingPath.size(), found);
  if (result != S_OK && result != none) return result;
  layout header{};
  std::memcpy(&header, found.data(), std::min(sizeof(header), found.size()));
  const bool isRecord = header.mark == mark;
  fits =
      header.isWhole <= 1 && found == bytesOf({mark, content.local, header.isWhole, header.number});
  // An empty one is that of a restoration which has not begun yet, or was killed before. A crash
  // can leave zeros.
  const bool isBlank = found.find_first_not_of('\0') == found.npos;
  if ((!isBlank && !isRecord) || (size > 0 && !fits)) {
    return HRESULT_FROM_WIN32(ERROR_FILE_EXISTS);
  }
  if (!fits) return S_OK;
  content = header;
  // The process that saved it may have been killed before it synced it.
  return isWhole() ? syncData(opened) : S_OK;
}

HRESULT progress_record::open(const descriptor& local) {
  HRESULT result = openStream(local, RESTORE_TAG_STREAM_NAME_A, O_RDONLY, tag);
  // Replaces one that does not fit: the restoration of an earlier file of this name may still write
  // into it. Even if there is none, FUSE may still know one of an earlier file.
  const int flags = O_RDWR | (fits ? 0 : O_CREAT | O_EXCL);
  return result == S_OK ? openStream(local, recordName, flags, stream) : result;
}

HRESULT progress_record::saveBegun(std::uint64_t pass) {
  const HRESULT result = tag.isOpen() ? syncData(tag) : S_OK;
  if (result != S_OK) return result;
  tag = descriptor();  // somebody may want to replace it
  content.number = pass;
  return save();
}

HRESULT progress_record::saveWhole(const descriptor& local, std::uint64_t length) {
  // Opened again: the name may have changed hands, and ntfs-3g finds an open stream by its name.
  std::string now;
  HRESULT result = openStream(local, recordName, O_RDWR, stream);
  if (result == S_OK) result = readFrom(stream, sizeof(content) + backingPath.size(), now);
  if (result != S_OK) return result;
  if (now != bytesOf(content)) return HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
  const layout begun = std::exchange(content, {mark, content.local, 1, length});
  result = save();
  if (result == S_OK) return result;
  content = begun;
  save();
  return result;
}

std::string progress_record::bytesOf(const layout& header) const {
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + backingPath;
}

HRESULT progress_record::save() {
  const std::string bytes = bytesOf(content);
  errno = ENOSPC;  // for a short write
  const ssize_t count = pwrite(stream.get(), bytes.data(), bytes.size(), 0);
  return count == std::ssize(bytes) ? syncData(stream) : loggedFailure("pwrite", stream);
}
