#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// One mount of the host. Its device is the volume; several mounts can show one.
struct mount_entry {
  std::uint64_t id;  // statx(2)
  dev_t device;
  std::string mountPoint;
};

/// Reads the host's mounts, in its order, from /proc/self/mountinfo (proc(5)). False, with
/// errno, when that fails. Throws std::bad_alloc.
bool readMounts(std::vector<mount_entry>& mounts);

/// The mount that holds `path`; none when that can't be told, with errno. Throws
/// std::bad_alloc.
std::optional<mount_entry> findMountOf(const char* path);

/// The volume id of a device, "Volume{00000000-0000-0000-0000-" and the device
/// number in 12 hexadecimal digits and "}", and back: none when `id` is no such.
std::string volumeIdOf(dev_t device);
std::optional<dev_t> deviceOfVolumeId(std::string_view id);

/// Reads the whole of a file of /proc. False, with errno, when that fails.
bool readProcFile(const char* path, std::string& content);
