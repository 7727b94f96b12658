#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

/// The volume id of a device: "Volume{00000000-0000-0000-0000-", 12 hexadecimal digits and "}".
std::string volumeIdOf(dev_t device);
/// The name of a device, as the Filter Manager reports it: "\Device\HarddiskVolume" and the number.
std::string deviceNameOf(dev_t device);
/// The device of a volume id; none if `id` is not one.
std::optional<dev_t> deviceOfVolumeId(std::string_view id);
