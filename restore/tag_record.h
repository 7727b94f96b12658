#pragma once

#include <string>

#include "zan_restore_filter.h"

/// Fills `record`, all 16376 bytes, for the backing file `ntPath` (UTF-16 code
/// units, one a wchar_t, stored as they are) and `strategy`, stored as given.
/// False, and `record` untouched, when the path exceeds 8168 code units.
bool buildTagRecord(const std::wstring& ntPath, const RestoreStrategy& strategy,
                    RestoreTagRecord& record) noexcept;
