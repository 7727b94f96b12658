// Volumes. A volume is a mounted device, known by its number: all its mounts are one volume.

#include <windows.h>

#include <algorithm>
#include <climits>
#include <cwchar>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/mount_table.h"
#include "platform/linux/utf16.h"
#include "platform/linux/volume_name.h"
#include "platform/posix/host_string.h"
#include "platform/posix/last_error.h"

namespace {

constexpr std::string_view volumePrefix = "\\\\?\\";

struct volume_list {
  std::vector<dev_t> devices;
  std::size_t next = 0;
};

// Decodes `text` and a terminating zero into `units`, which holds `size`. No name exceeds PATH_MAX.
bool answer(std::string_view text, LPWSTR units, DWORD size) {
  wchar_t decoded[PATH_MAX];
  if (text.size() >= PATH_MAX) return false;
  const std::size_t length = decodeUtf8(text.data(), text.size(), decoded);
  if (length + 1 > size) return false;
  std::wmemcpy(units, decoded, length);
  units[length] = L'\0';
  return true;
}

bool answerVolumeName(dev_t device, LPWSTR volumeName, DWORD size) {
  std::string name(volumePrefix);
  name += volumeIdOf(device);
  name += '\\';
  return answer(name, volumeName, size) || failsWith(ERROR_FILENAME_EXCED_RANGE);
}

// Runs `call`. If memory is lacking, sets the error and returns 0, FALSE or null.
template <typename Call>
auto guarded(Call call) -> decltype(call()) {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return {};
  }
}

std::optional<mount_entry> mountOf(LPCWSTR path) {
  std::optional<mount_entry> mount = findMountOf(host_string(path).bytes);
  if (!mount) failsWithErrno();
  return mount;
}

}  // namespace

BOOL GetVolumePathNameW(LPCWSTR path, LPWSTR mountPoint, DWORD size) {
  return guarded([&]() -> BOOL {
    const std::optional<mount_entry> mount = mountOf(path);
    if (!mount) return FALSE;
    return answer(mount->mountPoint, mountPoint, size) || failsWith(ERROR_FILENAME_EXCED_RANGE);
  });
}

BOOL GetVolumeNameForVolumeMountPointW(LPCWSTR mountPoint, LPWSTR volumeName, DWORD size) {
  return guarded([&]() -> BOOL {
    const std::optional<mount_entry> mount = mountOf(mountPoint);
    return mount && answerVolumeName(mount->device, volumeName, size);
  });
}

HANDLE FindFirstVolumeW(LPWSTR volumeName, DWORD size) {
  const HANDLE volumes = guarded([&]() -> HANDLE {
    auto search = std::make_unique<volume_list>();
    std::vector<mount_entry> mounts;
    if (!readMounts(mounts)) {
      failsWithErrno();
      return nullptr;
    }
    for (const mount_entry& mount : mounts) {
      const auto& known = search->devices;
      if (std::find(known.begin(), known.end(), mount.device) == known.end()) {
        search->devices.push_back(mount.device);
      }
    }
    return FindNextVolumeW(search.get(), volumeName, size) ? search.release() : nullptr;
  });
  return volumes == nullptr ? INVALID_HANDLE_VALUE : volumes;
}

BOOL FindNextVolumeW(HANDLE volumes, LPWSTR volumeName, DWORD size) {
  auto* const search = static_cast<volume_list*>(volumes);
  if (search->next == search->devices.size()) return failsWith(ERROR_NO_MORE_FILES);
  return guarded([&]() -> BOOL {
    return answerVolumeName(search->devices[search->next++], volumeName, size);
  });
}

BOOL FindVolumeClose(HANDLE volumes) {
  delete static_cast<volume_list*>(volumes);
  return TRUE;
}

DWORD QueryDosDeviceW(LPCWSTR name, LPWSTR devices, DWORD size) {
  return guarded([&]() -> DWORD {
    const host_string id(name);
    const std::optional<dev_t> device = deviceOfVolumeId({id.bytes, id.size});
    if (!device) return failsWith(ERROR_FILE_NOT_FOUND);
    // A list of names: each ends in a zero, the list in another.
    const std::string text = deviceNameOf(*device) + '\0';
    if (!answer(text, devices, size)) return failsWith(ERROR_INSUFFICIENT_BUFFER);
    return static_cast<DWORD>(text.size() + 1);
  });
}
