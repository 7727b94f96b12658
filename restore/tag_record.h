#pragma once

#include <string>

#include "zan_restore_filter.h"

/// Fills `record`, all 16376 bytes, with the backing file `ntPath` (UTF-16, one code unit per
/// wchar_t) and `strategy`, both stored as given. False, with `record` untouched, if the path
/// exceeds 8168 code units.
bool buildTagRecord(const std::wstring& ntPath, const RestoreStrategy& strategy,
                    RestoreTagRecord& record) noexcept;
