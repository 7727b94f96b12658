#pragma once

#include <windows.h>

#include <sstream>

namespace zan::fsfilter {

/// Writes one debug trace line: the parts one after another (wide texts, at most
/// one number after std::hex) and a line end, in one call of OutputDebugStringW.
/// Writes nothing when there is no memory for the whole line; never throws.
template <typename... Parts>
void traceLine(const Parts&... parts) noexcept {
  try {
    std::wstringstream line;
    (line << ... << parts) << std::endl;
    if (line) OutputDebugStringW(line.str().c_str());
  } catch (...) {
    // A trace line is the last resort: there is nowhere to report its loss.
  }
}

/// An HRESULT as the 32-bit pattern that trace lines print, whatever `long` is.
inline DWORD bitsOf(HRESULT result) noexcept { return static_cast<DWORD>(result); }

}  // namespace zan::fsfilter
