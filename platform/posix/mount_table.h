#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// One mount of the host, from /proc/self/mountinfo (proc(5)).
struct mount_entry {
  std::uint64_t id;
  dev_t device;
  std::string mountPoint;
};

/// All mounts, in the host's order; none when the table can't be read. Throws
/// std::bad_alloc.
std::vector<mount_entry> readMountTable();

/// The mount that holds `path`; none when the path can't be reached.
std::optional<mount_entry> findMountOf(const char* path);

/// The volume id of a device, "Volume{00000000-0000-0000-0000-" and the device
/// number in 12 hexadecimal digits and "}", and back: none when `id` is no such.
std::string volumeIdOf(dev_t device);
std::optional<dev_t> deviceOfVolumeId(std::string_view id);

/// The whole of a small file of /proc; empty when it can't be read.
std::string readProcFile(const char* path);
