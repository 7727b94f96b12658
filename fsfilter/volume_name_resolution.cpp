#include <windows.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cwchar>
#include <new>
#include <span>
#include <string_view>
#include <vector>

#include "fsfilter/debug_trace.h"
#include "fsfilter/filter_instances.h"

namespace zan::fsfilter {
namespace {

// UTF-16 code units. The buffer is doubled as long as it stays below the largest: up to 266,240.
constexpr std::size_t smallestDeviceBuffer = MAX_PATH;
constexpr std::size_t largestDeviceBuffer = 1024 * 1024 / 2;

constexpr std::wstring_view prefix = L"\\\\?\\";  // before a volume id

// The text that a call left in a buffer: up to its zero, or the entire buffer without one.
std::wstring_view textIn(std::span<const wchar_t> buffer) noexcept {
  return {buffer.data(), wcsnlen(buffer.data(), buffer.size())};
}

void traceQuery(DWORD error, const wchar_t* volume) noexcept {
  traceLine(L"QueryDosDevice failed: hr = 0x", std::hex, error, L", vol = ", volume);
}

// Closes the search, if it was opened.
struct volume_search {
  ~volume_search() {
    if (handle != INVALID_HANDLE_VALUE && !FindVolumeClose(handle)) {
      traceLine(L"FindVolumeClose falied: hr = 0x", std::hex, GetLastError());
    }
  }
  HANDLE handle = INVALID_HANDLE_VALUE;
};

// If `deviceName` is the first device of `volume`, "\\?\Volume{GUID}", sets `volumeId`. `devices`
// takes the names of its devices and grows as needed. False also if there is no memory for that.
bool resolve(const wchar_t* volume, const std::wstring& deviceName, std::vector<wchar_t>& devices,
             std::wstring& volumeId) try {
  if (devices.empty()) devices.resize(smallestDeviceBuffer);
  for (;;) {
    std::fill(devices.begin(), devices.end(), L'\0');
    if (QueryDosDeviceW(volume + prefix.size(), devices.data(),
                        static_cast<DWORD>(devices.size())) != 0) {
      const bool isFound = deviceName == textIn(devices);
      if (isFound) volumeId = volume + prefix.size();
      return isFound;
    }
    const DWORD error = GetLastError();
    const std::size_t larger = 2 * devices.size();
    if (error != ERROR_INSUFFICIENT_BUFFER || larger > largestDeviceBuffer) {
      traceQuery(error, volume);
      return false;
    }
    devices = std::vector<wchar_t>(larger);
  }
} catch (const std::bad_alloc&) {
  traceQuery(ERROR_NOT_ENOUGH_MEMORY, volume);
  return false;
}

}  // namespace

void FilterInstanceInfo::resolveVolumeId() noexcept {
  volumeId.clear();
  std::array<wchar_t, MAX_PATH> volume{};
  std::vector<wchar_t> devices;
  volume_search search;
  search.handle = FindFirstVolumeW(volume.data(), static_cast<DWORD>(volume.size()));
  if (search.handle == INVALID_HANDLE_VALUE) {
    traceLine(L"FindFirstVolume falied: hr = 0x", std::hex, GetLastError());
    return;
  }
  do {
    // Skips every name that does not have the form \\?\NAME\.
    const std::wstring_view name = textIn(volume);
    const bool isVolume = name.size() > prefix.size() + 1 && name.size() < volume.size() &&
                          name.starts_with(prefix) && name.ends_with(L'\\');
    if (isVolume) volume[name.size() - 1] = L'\0';
    if (isVolume && resolve(volume.data(), volumeDeviceName, devices, volumeId)) return;
    volume.fill(L'\0');
  } while (FindNextVolumeW(search.handle, volume.data(), static_cast<DWORD>(volume.size())));
  const DWORD error = GetLastError();
  if (error != ERROR_NO_MORE_FILES && error != ERROR_MORE_DATA) {
    traceLine(L"FindNextVolume failed: hr = 0x", std::hex, error);
  }
}

}  // namespace zan::fsfilter
