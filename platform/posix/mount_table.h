#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// One mount of the host. Its device is the volume. Several mounts can show one volume.
struct mount_entry {
  std::uint64_t id;  // statx(2)
  dev_t device;
  std::string mountPoint;
};

/// Reads the host's mounts, in its order, from /proc/self/mountinfo (proc(5)). False, with errno,
/// on failure. Throws std::bad_alloc.
bool readMounts(std::vector<mount_entry>& mounts);

/// The mount that holds `path`; none, with errno, if it is unknown. Throws std::bad_alloc.
std::optional<mount_entry> findMountOf(const char* path);

/// Converts a device number to its volume id, "Volume{00000000-0000-0000-0000-", 12 hexadecimal
/// digits and "}", and back; empty if `id` is not a volume id.
std::string volumeIdOf(dev_t device);
std::optional<dev_t> deviceOfVolumeId(std::string_view id);

/// Reads an entire file of /proc. False, with errno, on failure. Throws std::bad_alloc.
bool readProcFile(const char* path, std::string& content);
