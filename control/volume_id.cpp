#include "control/volume_id.h"

#include <windows.h>

#include <new>
#include <string_view>

namespace {

constexpr std::size_t mountPointSize = MAX_PATH + 1;
constexpr std::size_t volumeNameSize = 50;  // "\\?\", the volume id, a backslash, a zero
constexpr std::size_t volumeIdLength = 44;

}  // namespace

std::wstring getVolumeId(std::wstring path) noexcept {
  wchar_t mountPoint[mountPointSize] = {};
  if (!GetVolumePathNameW(path.c_str(), mountPoint, mountPointSize)) return {};

  wchar_t volumeName[volumeNameSize] = {};
  if (!GetVolumeNameForVolumeMountPointW(mountPoint, volumeName, volumeNameSize)) return {};

  const std::wstring_view name(volumeName, volumeNameSize);
  const std::size_t start = name.find(L"Volume");
  if (start == std::wstring_view::npos) return {};
  try {
    return std::wstring(name.substr(start, volumeIdLength));
  } catch (const std::bad_alloc&) {
    return {};
  }
}
