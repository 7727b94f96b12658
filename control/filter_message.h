#pragma once

#include <string>

#include "zan_restore_filter.h"

/// Routes one message to the restore filter: opens the local file `path`, finds the filter's
/// instance on its volume, connects to that volume's port and sends `request` with the file's
/// handle. `reply` takes the answer to a query; without it, each step is printed. Prints every
/// failure. Returns 0 if the filter accepted the message, else 1.
int sendToFilter(const std::wstring& path, const ControlRequest& request,
                 ProgressInfo* reply = nullptr);
