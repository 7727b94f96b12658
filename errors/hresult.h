#pragma once

#include <windows.h>

namespace zan::except {

/// An HRESULT as the 32-bit pattern that is printed, however wide `long` is.
inline DWORD bitsOf(HRESULT result) noexcept { return static_cast<DWORD>(result); }

}  // namespace zan::except
