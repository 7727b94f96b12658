#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// One mount of the host. Its device is the volume. Several mounts can show one volume.
struct mount_entry {
  std::uint64_t id;  // stx_mnt_id of statx(2)
  dev_t device;
  std::string mountPoint;
};

/// Reads the host's mounts, in the host's order, from /proc/self/mountinfo (proc(5)). False, with
/// errno, on failure. Throws std::bad_alloc.
bool readMounts(std::vector<mount_entry>& mounts);

/// The mount that holds `path`; none, with errno, if it is unknown. Throws std::bad_alloc.
std::optional<mount_entry> findMountOf(const char* path);
