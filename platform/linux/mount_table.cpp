#include "platform/linux/mount_table.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string_view>

#include "platform/linux/proc_file.h"

namespace {

// Removes the next field of a line, up to `end`, from `rest`.
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

bool readMounts(std::vector<mount_entry>& mounts) {
  std::string text;
  if (!readProcFile("/proc/self/mountinfo", text)) return false;
  for (std::string_view rest = text; !rest.empty();) {
    // A line: "ID PARENT MAJOR:MINOR ROOT MOUNT-POINT ...".
    std::string_view line = nextField(rest, '\n');
    const auto id = numberIn<std::uint64_t>(nextField(line));
    nextField(line);
    const auto major = numberIn<unsigned>(nextField(line, ':'));
    const auto minor = numberIn<unsigned>(nextField(line));
    nextField(line);
    mounts.push_back({id, makedev(major, minor), unescaped(nextField(line))});
  }
  return true;
}

std::optional<mount_entry> findMountOf(const char* path) {
  struct statx file {};
  std::vector<mount_entry> mounts;
  if (statx(AT_FDCWD, path, 0, STATX_MNT_ID, &file) != 0 || !readMounts(mounts)) {
    return std::nullopt;
  }
  const bool isKnown = (file.stx_mask & STATX_MNT_ID) != 0;  // Linux 5.8 or later
  for (const mount_entry& mount : mounts) {
    if (isKnown && mount.id == file.stx_mnt_id) return mount;
  }
  errno = ENOENT;
  return std::nullopt;
}
