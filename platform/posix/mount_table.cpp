#include "platform/posix/mount_table.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>

#include "platform/posix/descriptor.h"

namespace {

constexpr std::string_view idPrefix = "Volume{00000000-0000-0000-0000-";
constexpr std::size_t idDigits = 12;

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

bool readProcFile(const char* path, std::string& content) {
  const descriptor file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file.isOpen()) return false;
  char chunk[16384];
  ssize_t count = 0;
  while ((count = read(file.get(), chunk, sizeof(chunk))) > 0) {
    content.append(chunk, static_cast<std::size_t>(count));
  }
  return count == 0;
}

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

std::string volumeIdOf(dev_t device) {
  char digits[idDigits + 5];  // room for 64 bits, of which Linux uses 32
  std::snprintf(digits, sizeof(digits), "%0*lx", int{idDigits}, device);
  return std::string(idPrefix) + digits + '}';
}

std::string deviceNameOf(dev_t device) {
  return "\\Device\\HarddiskVolume" + std::to_string(device);
}

std::optional<dev_t> deviceOfVolumeId(std::string_view id) {
  if (id.size() != idPrefix.size() + idDigits + 1 || !id.starts_with(idPrefix)) return std::nullopt;
  const char* const digits = id.data() + idPrefix.size();
  dev_t device = 0;
  const auto parsed = std::from_chars(digits, digits + idDigits, device, 16);
  if (parsed.ptr != digits + idDigits || *parsed.ptr != '}') return std::nullopt;
  return device;
}
