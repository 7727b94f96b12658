#include "fsfilter/filter_instances.h"

#include <fltuser.h>
#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include "errors/hresult.h"
#include "fsfilter/debug_trace.h"

namespace zan::fsfilter {
namespace {

constexpr std::size_t smallestRecordBuffer = 512;  // bytes
constexpr std::size_t largestRecordBuffer = 1024 * 1024;

// The layout of Windows 8 and later.
static_assert(sizeof(INSTANCE_AGGREGATE_STANDARD_INFORMATION) == 40);

// Closes the search, even one that was never opened: that call, and its trace line, are fixed.
struct instance_search {
  ~instance_search() {
    const HRESULT closed = FilterInstanceFindClose(handle);
    if (closed < 0) {
      traceLine(L"FilterInstanceFindClose failed: status = 0x", std::hex, except::bitsOf(closed));
    }
  }
  HANDLE handle = INVALID_HANDLE_VALUE;
};

using record_buffer = std::vector<BYTE>;

// The text of `length` bytes at `offset` from the start of the record; empty if it is not inside
// the buffer.
std::wstring textAt(const record_buffer& buffer, std::size_t offset, std::size_t length) {
  if (offset + length > buffer.size()) return {};
  std::wstring text(length / sizeof(std::uint16_t), L'\0');
  for (wchar_t& unit : text) {
    std::uint16_t value = 0;
    std::memcpy(&value, buffer.data() + offset, sizeof(value));
    unit = static_cast<wchar_t>(value);
    offset += sizeof(value);
  }
  return text;
}

FilterInstanceInfo readRecord(const record_buffer& buffer) {
  INSTANCE_AGGREGATE_STANDARD_INFORMATION record;
  std::memcpy(&record, buffer.data(), sizeof(record));
  FilterInstanceInfo info;
  if (record.Flags == FLTFL_IASI_IS_LEGACYFILTER) {
    const auto& legacy = record.Type.LegacyFilter;
    info.isLegacyFilter = true;
    info.filterName = textAt(buffer, legacy.FilterNameBufferOffset, legacy.FilterNameLength);
    info.altitude = textAt(buffer, legacy.AltitudeBufferOffset, legacy.AltitudeLength);
    info.volumeDeviceName = textAt(buffer, legacy.VolumeNameBufferOffset, legacy.VolumeNameLength);
    info.detachedVolume = (legacy.Flags & FLTFL_IASIL_DETACHED_VOLUME) != 0;
    return info;
  }
  const auto& mini = record.Type.MiniFilter;
  info.instanceName = textAt(buffer, mini.InstanceNameBufferOffset, mini.InstanceNameLength);
  info.filterName = textAt(buffer, mini.FilterNameBufferOffset, mini.FilterNameLength);
  info.altitude = textAt(buffer, mini.AltitudeBufferOffset, mini.AltitudeLength);
  info.volumeDeviceName = textAt(buffer, mini.VolumeNameBufferOffset, mini.VolumeNameLength);
  info.resolveVolumeId();
  info.detachedVolume = (mini.Flags & FLTFL_IASIM_DETACHED_VOLUME) != 0;
  info.frameId = mini.FrameID;
  info.volumeFileSystemType = static_cast<DWORD>(mini.VolumeFileSystemType);
  return info;
}

}  // namespace

std::list<FilterInstanceInfo> findFilterInstances(const std::wstring& filterName) noexcept {
  std::list<FilterInstanceInfo> instances;
  instance_search search;
  const auto traceFailure = [&](HRESULT result) noexcept {
    traceLine(instances.empty() ? L"FilterInstanceFindFirst" : L"FilterInstanceFindNext",
              L" failed: status = 0x", std::hex, except::bitsOf(result));
  };
  try {
    record_buffer buffer(smallestRecordBuffer);
    for (;;) {
      DWORD unused = 0;
      const auto size = static_cast<DWORD>(buffer.size());
      const HRESULT result =
          instances.empty()
              ? FilterInstanceFindFirst(filterName.c_str(), InstanceAggregateStandardInformation,
                                        buffer.data(), size, &unused, &search.handle)
              : FilterInstanceFindNext(search.handle, InstanceAggregateStandardInformation,
                                       buffer.data(), size, &unused);
      const int code = HRESULT_CODE(result);
      if (code == ERROR_NO_MORE_ITEMS) break;
      const bool isTooSmall = code == ERROR_INSUFFICIENT_BUFFER;
      if (isTooSmall && buffer.size() < largestRecordBuffer) {
        buffer = record_buffer(2 * buffer.size());
        continue;
      }
      if (result < 0 || isTooSmall) {
        traceFailure(result);
        break;
      }
      instances.push_back(readRecord(buffer));
    }
  } catch (const std::bad_alloc&) {
    traceFailure(E_OUTOFMEMORY);
  }
  return instances;
}

}  // namespace zan::fsfilter
