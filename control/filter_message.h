#pragma once

#include <windows.h>

#include <string>

#include "zan_restore_filter.h"

/// Whether the steps of a send are printed as they are taken.
enum class status_lines { printed, silent };

/// Routes one message to the restore filter: opens the local file `path`, finds
/// the filter's instance on its volume, connects to that volume's port and sends
/// `request` with the file's handle. `reply` takes the answer, `replySize` bytes
/// at most; null and 0 when none is expected. Prints why it failed. Returns 0
/// when the filter accepted the message, else 1.
int sendToFilter(const std::wstring& path, const ControlRequest& request, void* reply,
                 DWORD replySize, status_lines lines);
