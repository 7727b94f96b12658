#include <windows.h>

#include <array>
#include <cstddef>
#include <cwchar>
#include <vector>

#include "fsfilter/debug_trace.h"
#include "fsfilter/enough_memory.h"
#include "fsfilter/filter_instances.h"

namespace zan::fsfilter {
namespace {

constexpr std::size_t smallestDeviceBuffer = MAX_PATH;        // UTF-16 code units
constexpr std::size_t largestDeviceBuffer = 1024 * 1024 / 2;  // 1 MiB

constexpr std::size_t prefixLength = 4;  // "\\?\" before a volume id

void traceQuery(DWORD error, const wchar_t* volume) noexcept {
  traceLine(L"QueryDosDevice failed: hr = 0x", std::hex, error, L", vol = ", volume);
}

// Whether `deviceName` is the device of `volume`, "\\?\Volume{GUID}", the first
// if it has several. `devices` takes their names and grows as needed.
bool isDeviceOf(const wchar_t* volume, const std::wstring& deviceName,
                std::vector<wchar_t>& devices) noexcept {
  while (QueryDosDeviceW(volume + prefixLength, devices.data(),
                         static_cast<DWORD>(devices.size())) == 0) {
    const DWORD error = GetLastError();
    const std::size_t larger = 2 * devices.size();
    if (error != ERROR_INSUFFICIENT_BUFFER || larger > largestDeviceBuffer ||
        !hasMemoryFor([&] { devices = std::vector<wchar_t>(larger); })) {
      traceQuery(error, volume);
      return false;
    }
  }
  return deviceName == devices.data();
}

}  // namespace

void FilterInstanceInfo::resolveVolumeId() noexcept {
  volumeId.clear();
  std::vector<wchar_t> devices;
  if (!hasMemoryFor([&] { devices.resize(smallestDeviceBuffer); })) {
    traceLine(L"FindFirstVolume falied: hr = 0x", std::hex, DWORD{ERROR_NOT_ENOUGH_MEMORY});
    return;
  }

  std::array<wchar_t, MAX_PATH> volume;
  const HANDLE volumes = FindFirstVolumeW(volume.data(), static_cast<DWORD>(volume.size()));
  if (volumes == INVALID_HANDLE_VALUE) {
    traceLine(L"FindFirstVolume falied: hr = 0x", std::hex, GetLastError());
    return;
  }
  for (;;) {
    const std::size_t length = std::wcslen(volume.data());
    if (length > 0) volume[length - 1] = L'\0';  // the trailing backslash
    if (isDeviceOf(volume.data(), volumeDeviceName, devices)) {
      if (!hasMemoryFor([&] { volumeId = volume.data() + prefixLength; })) {
        traceQuery(ERROR_NOT_ENOUGH_MEMORY, volume.data());
      }
      break;
    }
    if (FindNextVolumeW(volumes, volume.data(), static_cast<DWORD>(volume.size()))) continue;
    const DWORD error = GetLastError();
    if (error != ERROR_NO_MORE_FILES && error != ERROR_MORE_DATA) {
      traceLine(L"FindNextVolume failed: hr = 0x", std::hex, error);
    }
    break;
  }
  if (!FindVolumeClose(volumes)) {
    traceLine(L"FindVolumeClose falied: hr = 0x", std::hex, GetLastError());
  }
}

}  // namespace zan::fsfilter
