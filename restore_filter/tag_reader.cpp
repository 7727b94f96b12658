#include "restore_filter/tag_reader.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>

#include "platform/posix/descriptor.h"
#include "platform/posix/last_error.h"
#include "platform/posix/utf16.h"
#include "zan_restore_filter.h"

namespace {

const HRESULT notTagged = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
const HRESULT notWhole = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);

bool isOurs(const struct stat& file) { return file.st_uid == 0 || file.st_uid == geteuid(); }

HRESULT readRecord(const void* bytes, std::size_t size, std::string& backingPath) {
  static const std::uint8_t guid[] = RESTORE_TAG_GUID;
  RestoreTagRecord record;
  if (size != sizeof(record)) return notWhole;
  std::memcpy(&record, bytes, sizeof(record));
  const std::size_t units = record.pathLength / sizeof(record.path[0]);
  const bool isSound = record.tag == RESTORE_TAG && record.dataLength == RESTORE_TAG_DATA_LENGTH &&
                       std::equal(guid, guid + sizeof(guid), record.guid) &&
                       record.pathOffset == RESTORE_TAG_PATH_OFFSET && record.pathLength % 2 == 0 &&
                       units > 0 && units <= RESTORE_TAG_PATH_UNITS;
  if (!isSound) return notWhole;
  const std::wstring path(record.path, record.path + units);
  if (path.find(L'\0') != path.npos) return notWhole;
  backingPath.resize(3 * units);
  backingPath.resize(encodeUtf8(path.data(), units, backingPath.data(), backingPath.size()));
  return S_OK;
}

}  // namespace

HRESULT readTagOf(int file, std::string& backingPath) {
  struct stat local {};
  if (fstat(file, &local) != 0) return hostFailure();
  if (local.st_nlink == 0) return notTagged;  // deleted, and its tag with it
  std::string path(PATH_MAX, '\0');
  const ssize_t length = readlink(procPathOf(file).c_str(), path.data(), path.size());
  if (length < 0) return hostFailure();
  path.resize(static_cast<std::size_t>(length));
  path += ":" RESTORE_TAG_STREAM_NAME_A;

  const descriptor stream(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!stream.isOpen()) return errno == ENOENT ? notTagged : hostFailure();
  struct stat tag {};
  if (fstat(stream.get(), &tag) != 0) return hostFailure();
  // Whoever may create files here could have written the tag, laid it beside a file of his
  // own, or linked it there.
  const bool isObeyed =
      isOurs(local) && isOurs(tag) && tag.st_nlink == 1 && (tag.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  if (!isObeyed) return HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
  // One byte more than a record, to see whether there is more.
  std::string content(sizeof(RestoreTagRecord) + 1, '\0');
  const ssize_t size = read(stream.get(), content.data(), content.size());
  if (size < 0) return hostFailure();
  return readRecord(content.data(), static_cast<std::size_t>(size), backingPath);
}
