#pragma once

#include <string>

#include "platform/scripted/machine.h"

// The machine that the control commands expect: three volumes, the restore
// filter attached to all of them, a local file f on the third.
namespace scripted {

inline const std::wstring firstVolume = L"Volume{11111111-1111-1111-1111-111111111111}";
inline const std::wstring secondVolume = L"Volume{22222222-2222-2222-2222-222222222222}";
inline const std::wstring fileVolume = L"Volume{abcdefab-3333-3333-3333-333333333333}";

machine attachedMachine();

/// A Filter Manager record of an instance on the volume `device`; `pad` bytes lie
/// between its fields and its texts.
std::string instanceRecord(const std::wstring& device, bool isLegacy = false, std::size_t pad = 0);

}  // namespace scripted
