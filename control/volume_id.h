#pragma once

#include <string>

/// The volume id, "Volume{GUID}" (44 code units), of the volume that holds the
/// file at `path`; empty when it can't be determined. Says nothing, throws
/// nothing. See GetVolumePathNameW, GetVolumeNameForVolumeMountPointW.
std::wstring getVolumeId(std::wstring path) noexcept;
