#include "platform/posix/mount_table.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <utility>

namespace {

constexpr std::string_view idPrefix = "Volume{00000000-0000-0000-0000-";
constexpr std::size_t idDigits = 12;

// The next field of a line, up to `end`, cut off `rest`.
std::string_view nextField(std::string_view& rest, char end = ' ') {
  const std::string_view field = rest.substr(0, rest.find(end));
  rest.remove_prefix(std::min(field.size() + 1, rest.size()));
  return field;
}

template <typename Number>
Number numberIn(std::string_view digits, int base = 10) {
  Number value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
  return value;
}

// mountinfo writes space, tab, line feed and backslash as a backslash and three
// octal digits.
std::string unescaped(std::string_view field) {
  std::string text;
  text.reserve(field.size());
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      text += static_cast<char>(numberIn<unsigned>(field.substr(i + 1, 3), 8));
      i += 3;
    } else {
      text += field[i];
    }
  }
  return text;
}

}  // namespace

std::string readProcFile(const char* path) {
  std::string content;
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return content;
  ssize_t count = 0;
  std::size_t size = 0;
  try {
    do {
      content.resize(size + 16384);
      count = read(descriptor, content.data() + size, content.size() - size);
      if (count > 0) size += static_cast<std::size_t>(count);
    } while (count > 0);
  } catch (...) {
    close(descriptor);
    throw;
  }
  close(descriptor);
  content.resize(size);
  return content;
}

std::vector<mount_entry> readMountTable() {
  const std::string table = readProcFile("/proc/self/mountinfo");
  std::vector<mount_entry> mounts;
  for (std::string_view rest = table; !rest.empty();) {
    std::string_view line = nextField(rest, '\n');
    mount_entry mount;
    mount.id = numberIn<std::uint64_t>(nextField(line));
    nextField(line);  // the parent mount
    const auto major = numberIn<unsigned>(nextField(line, ':'));
    const auto minor = numberIn<unsigned>(nextField(line));
    mount.device = makedev(major, minor);
    nextField(line);  // the folder of the file system that is mounted
    mount.mountPoint = unescaped(nextField(line));
    mounts.push_back(std::move(mount));
  }
  return mounts;
}

std::optional<mount_entry> findMountOf(const char* path) {
  struct statx file {};
  if (statx(AT_FDCWD, path, 0, STATX_MNT_ID, &file) != 0) return std::nullopt;
  if ((file.stx_mask & STATX_MNT_ID) == 0) return std::nullopt;
  for (mount_entry& mount : readMountTable()) {
    if (mount.id == file.stx_mnt_id) return std::move(mount);
  }
  return std::nullopt;
}

std::string volumeIdOf(dev_t device) {
  char digits[idDigits + 1];
  std::snprintf(digits, sizeof(digits), "%012llx", static_cast<unsigned long long>(device));
  return std::string(idPrefix) + digits + '}';
}

std::optional<dev_t> deviceOfVolumeId(std::string_view id) {
  if (id.size() != idPrefix.size() + idDigits + 1 || !id.starts_with(idPrefix)) return std::nullopt;
  const char* const digits = id.data() + idPrefix.size();
  dev_t device = 0;
  const auto parsed = std::from_chars(digits, digits + idDigits, device, 16);
  if (parsed.ptr != digits + idDigits || *parsed.ptr != '}') return std::nullopt;
  return device;
}
