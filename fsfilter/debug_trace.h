#pragma once

#include <windows.h>

#include <sstream>

namespace zan::fsfilter {

/// Writes one debug trace line in one call of OutputDebugStringW: the parts and a line end.
/// The parts are wide texts, and at most one number, which follows std::hex. Writes nothing if
/// memory for the line is lacking. Never throws. Parts&&, because std::hex is a function: of a
/// const one, MSVC warns (C4180).
template <typename... Parts>
void traceLine(Parts&&... parts) noexcept {
  try {
    std::wstringstream line;
    (line << ... << parts) << std::endl;
    if (line) OutputDebugStringW(line.str().c_str());
  } catch (...) {
    // There is nowhere to report the loss of a trace line.
  }
}

}  // namespace zan::fsfilter
