#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// One mount of the host.
struct mount_entry {
  dev_t device;
  std::string_view mountPoint;  // as the table writes it, valid while the table lives
};

/// The host's mounts, read once from /proc/self/mountinfo (proc(5)). Throws
/// std::bad_alloc.
class mount_table {
 public:
  mount_table();
  mount_table(const mount_table&) = delete;
  mount_table& operator=(const mount_table&) = delete;

  /// Whether it could be read; if not, there are no mounts and errno tells why.
  bool isRead() const { return wasRead; }
  /// The next mount in the host's order; false when there is none.
  bool next(mount_entry& mount);
  /// The mount with this id (statx(2)).
  std::optional<mount_entry> find(std::uint64_t id) const;

 private:
  std::string text;
  const bool wasRead;
  std::string_view rest;
};

/// A volume: the device of a mount, and where that is mounted.
struct mounted_volume {
  dev_t device;
  std::string mountPoint;
};

/// The volume that holds `path`; none when that can't be told, with errno. Throws
/// std::bad_alloc.
std::optional<mounted_volume> findVolumeOf(const char* path);

/// The volume id of a device, "Volume{00000000-0000-0000-0000-" and the device
/// number in 12 hexadecimal digits and "}", and back: none when `id` is no such.
std::string volumeIdOf(dev_t device);
std::optional<dev_t> deviceOfVolumeId(std::string_view id);

/// Reads the whole of a file of /proc. False, with errno, when that fails.
bool readProcFile(const char* path, std::string& content);
