#pragma once

#include <windows.h>

#include <list>
#include <string>

namespace zan::fsfilter {

/// One instance of a filter as the Filter Manager reports it. A copy, without pointers into the
/// Filter Manager's buffer. See INSTANCE_AGGREGATE_STANDARD_INFORMATION.
struct FilterInstanceInfo {
  bool isLegacyFilter = false;
  bool detachedVolume = false;
  DWORD frameId = 0;               // 0 for a legacy filter
  DWORD volumeFileSystemType = 0;  // FLT_FILESYSTEM_TYPE; 0 for a legacy filter
  std::wstring instanceName;       // empty for a legacy filter
  std::wstring altitude;
  std::wstring filterName;
  std::wstring volumeDeviceName;  // for example "\Device\HarddiskVolume3"
  std::wstring volumeId;          // "Volume{GUID}"; empty when not resolved

  /// Sets `volumeId` to the volume whose first device is `volumeDeviceName`, or to an empty text if
  /// there is none. Traces failures. Never throws.
  void resolveVolumeId() noexcept;
};

/// Lists the instances of the minifilter `filterName` in the Filter Manager's order, with their
/// volume ids. A failure is traced and ends the list early. Never throws.
std::list<FilterInstanceInfo> findFilterInstances(const std::wstring& filterName) noexcept;

}  // namespace zan::fsfilter
