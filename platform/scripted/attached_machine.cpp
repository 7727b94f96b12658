#include "platform/scripted/attached_machine.h"

#include <fltuser.h>
#include <windows.h>

namespace scripted {

std::string instanceRecord(const std::wstring& device, bool isLegacy, std::size_t pad) {
  INSTANCE_AGGREGATE_STANDARD_INFORMATION header{};
  std::string texts(pad, '\0');
  const auto place = [&](const std::wstring& text, USHORT& length, USHORT& offset) {
    offset = static_cast<USHORT>(sizeof(header) + texts.size());
    length = static_cast<USHORT>(2 * text.size());
    for (const wchar_t unit : text) {
      texts += {static_cast<char>(unit & 0xFF), static_cast<char>(unit >> 8 & 0xFF)};
    }
  };
  if (isLegacy) {
    header.Flags = 2;
    auto& legacy = header.Type.LegacyFilter;
    legacy.Flags = 3;
    place(L"40500", legacy.AltitudeLength, legacy.AltitudeBufferOffset);
    place(device, legacy.VolumeNameLength, legacy.VolumeNameBufferOffset);
    place(L"old", legacy.FilterNameLength, legacy.FilterNameBufferOffset);
  } else {
    header.Flags = 1;
    auto& mini = header.Type.MiniFilter;
    mini.Flags = 3;
    mini.FrameID = 5;
    mini.VolumeFileSystemType = static_cast<FLT_FILESYSTEM_TYPE>(2);
    place(L"inst\x4E2D", mini.InstanceNameLength, mini.InstanceNameBufferOffset);
    place(L"180000", mini.AltitudeLength, mini.AltitudeBufferOffset);
    place(device, mini.VolumeNameLength, mini.VolumeNameBufferOffset);
    place(L"zan_restore_filter", mini.FilterNameLength, mini.FilterNameBufferOffset);
  }
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + texts;
}

machine attachedMachine() {
  machine attached;
  attached.files = {L"f"};
  attached.mountedVolume = L"\\\\?\\" + fileVolume + L"\\";
  attached.volumes = {{firstVolume, {L"\\Device\\V1"}},
                      {secondVolume, {L"\\Device\\V2", L"\\Device\\V3"}},
                      {fileVolume, {L"\\Device\\V3"}}};
  attached.instances = {instanceRecord(L"\\Device\\V2"), instanceRecord(L"\\Device\\V3"),
                        instanceRecord(L"\\Device\\V1")};
  return attached;
}

}  // namespace scripted
