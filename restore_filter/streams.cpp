#include "restore_filter/streams.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/linux/utf16.h"
#include "restore_filter/failure.h"
#include "zan_restore_filter.h"

namespace {

constexpr const char* recordName = "restore_filter_progress";

failure malformed() { return failureOf(ERROR_INVALID_DATA); }

bool isOurs(const struct stat& file) { return file.st_uid == 0 || file.st_uid == geteuid(); }

bool isSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Where a stream of a file is, whether it exists or not.
struct stream_place {
  struct stat file {};  // the file that has the stream
  descriptor folder;
  std::string name;
};

// Nothing if the file was deleted, or its name is another file's now.
std::optional<stream_place> placeOf(const char* name, const descriptor& local) {
  stream_place place;
  if (fstat(local.get(), &place.file) != 0) throwFailure("fstat", local);
  if (place.file.st_nlink == 0) return std::nullopt;
  const std::string path = pathOf(local);
  const std::size_t nameAt = path.rfind('/') + 1;
  const std::string fileName = path.substr(nameAt);
  place.name = fileName + ':' + name;
  // A stranger may have put a symbolic link in place of a folder.
  place.folder = openPath(AT_FDCWD, path.substr(0, nameAt), O_DIRECTORY, RESOLVE_NO_SYMLINKS);
  if (!place.folder.isOpen() && errno != ENOENT) throwFailure("openat2", path);
  // The kernel's path may be outdated, or lead elsewhere: to another mount.
  struct stat found {};
  const bool isFound = place.folder.isOpen() && fstatat(place.folder.get(), fileName.c_str(),
                                                        &found, AT_SYMLINK_NOFOLLOW) == 0;
  if (!isFound && errno != ENOENT) throwFailure("fstatat", path);
  if (!isFound || !isSameFile(found, place.file)) return std::nullopt;
  return place;
}

// Opens a stream with the open(2) `flags`. Not open if there is none.
descriptor openStream(const stream_place& place, const descriptor& local, int flags) {
  descriptor stream(openat(place.folder.get(), place.name.c_str(),
                           flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644));
  // There is no stream whose name is impossible: too long, or with a colon.
  const bool isAbsent = errno == ENOENT || errno == ENAMETOOLONG || errno == EINVAL;
  if (!stream.isOpen() && isAbsent && (flags & O_CREAT) == 0) return stream;
  if (!stream.isOpen()) throwFailure("openat", place.name);
  struct stat found {};
  if (fstat(stream.get(), &found) != 0) throwFailure("fstat", stream);
  const bool isTrusted = isOurs(place.file) && isOurs(found) && S_ISREG(found.st_mode) &&
                         found.st_nlink == 1 && (found.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  if (!isTrusted) throw failureOf(ERROR_ACCESS_DENIED);
  const bool isReal = isSameFile(found, place.file);  // a real named stream
  if (!isReal && !stampOf(local).identity.hasBirth()) throw failureOf(ERROR_NOT_SUPPORTED);
  return stream;
}

descriptor findStream(const char* name, const descriptor& local, int flags) {
  const std::optional<stream_place> place = placeOf(name, local);
  return place ? openStream(*place, local, flags) : descriptor();
}

// Reads at most `size` + 1 bytes. If the result is longer than `size`, the stream is too long.
std::string readFrom(const descriptor& stream, std::size_t size) {
  std::string content(size + 1, '\0');
  const ssize_t count = read(stream.get(), content.data(), content.size());
  if (count < 0) throwFailure("read", stream);
  content.resize(static_cast<std::size_t>(count));
  return content;
}

}  // namespace

std::optional<std::string> readTag(const descriptor& local) {
  static const std::uint8_t guid[] = RESTORE_TAG_GUID;
  RestoreTagRecord record;
  const descriptor stream = findStream(RESTORE_TAG_STREAM_NAME_A, local, O_RDONLY);
  if (!stream.isOpen()) return std::nullopt;
  const std::string bytes = readFrom(stream, sizeof(record));
  if (bytes.size() != sizeof(record)) throw malformed();
  std::memcpy(&record, bytes.data(), sizeof(record));
  const std::size_t units = record.pathLength / sizeof(record.path[0]);
  const bool isValid = record.tag == RESTORE_TAG && record.dataLength == RESTORE_TAG_DATA_LENGTH &&
                       std::equal(guid, guid + sizeof(guid), record.guid) &&
                       record.pathOffset == RESTORE_TAG_PATH_OFFSET && record.pathLength % 2 == 0 &&
                       units > 0 && units <= RESTORE_TAG_PATH_UNITS;
  if (!isValid) throw malformed();
  const std::wstring path(record.path, record.path + units);
  if (path.find(L'\0') != path.npos) throw malformed();
  std::string backingPath(3 * units, '\0');
  backingPath.resize(encodeUtf8(path.data(), units, backingPath.data(), backingPath.size()));
  std::wstring decoded(backingPath.size(), L'\0');
  decoded.resize(decodeUtf8(backingPath.data(), backingPath.size(), decoded.data()));
  if (decoded != path) throw malformed();  // a surrogate that stands for no byte
  return backingPath;
}

bool progress_record::read(const descriptor& local, std::uint64_t size) {
  const descriptor opened = findStream(recordName, local, O_RDONLY);
  std::string found;
  if (opened.isOpen()) found = readFrom(opened, sizeof(content) + backingPath.size());
  layout header{};
  std::memcpy(&header, found.data(), std::min(sizeof(header), found.size()));
  fits =
      header.isWhole <= 1 && found == bytesOf({mark, content.local, header.isWhole, header.length});
  if (fits) content = header;
  // An empty one is that of a restoration which has not begun yet, or was killed before. A crash
  // can leave zeros.
  const bool isBlank = found.find_first_not_of('\0') == found.npos;
  return fits || (size == 0 && (isBlank || header.mark == mark));
}

void progress_record::open(const descriptor& local) {
  const std::optional<stream_place> place = placeOf(recordName, local);
  if (!place) throw failureOf(ERROR_NOT_FOUND);
  // Replaces one that does not fit: the restoration of an earlier file of this name may still write
  // into it. Even if there is none, FUSE may still know one of an earlier file.
  if (!fits) unlinkat(place->folder.get(), place->name.c_str(), 0);
  stream = openStream(*place, local, O_RDWR | (fits ? 0 : O_CREAT | O_EXCL));
  if (!stream.isOpen()) throw failureOf(ERROR_NOT_FOUND);
}

void progress_record::saveBegun(const descriptor& local) {
  const descriptor tag = findStream(RESTORE_TAG_STREAM_NAME_A, local, O_RDONLY);
  if (!tag.isOpen()) throw failureOf(ERROR_NOT_FOUND);
  syncData(tag);
  content.length = 0;
  save();
}

void progress_record::saveWhole(const descriptor& local, std::uint64_t length) {
  // Opened again: the name may have changed hands, and ntfs-3g finds an open stream by its name.
  stream = findStream(recordName, local, O_RDWR);
  const bool isStill =
      stream.isOpen() && readFrom(stream, sizeof(content) + backingPath.size()) == bytesOf(content);
  if (!isStill) throw failureOf(ERROR_FILE_INVALID);
  content.isWhole = 1;
  content.length = length;
  save();
}

std::string progress_record::bytesOf(const layout& header) const {
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + backingPath;
}

void progress_record::save() {
  const std::string bytes = bytesOf(content);
  errno = ENOSPC;  // for a short write
  const ssize_t count = pwrite(stream.get(), bytes.data(), bytes.size(), 0);
  if (count != std::ssize(bytes)) throwFailure("pwrite", stream);
  syncData(stream);
}
