#pragma once

#include <string>

#include "platform/scripted/machine.h"

// The machine that the control commands expect: three volumes, the restore
// filter attached to all of them, a local file f on the third.
namespace scripted {

extern const std::wstring firstVolume;
extern const std::wstring secondVolume;
extern const std::wstring fileVolume;

machine attachedMachine();

/// A Filter Manager record of an instance on the volume `device`; `pad` bytes lie
/// between its fields and its texts.
std::string instanceRecord(const std::wstring& device, bool isLegacy = false, std::size_t pad = 0);

}  // namespace scripted
