#pragma once

#include <string>

/// Returns the volume id, "Volume{GUID}" (44 code units), of the volume that holds the file at
/// `path`; empty if it cannot be determined. Prints nothing and never throws. See
/// GetVolumePathNameW, GetVolumeNameForVolumeMountPointW.
std::wstring getVolumeId(std::wstring path) noexcept;
