#pragma once

#include <string>

#include "zan_restore_filter.h"

// The three commands behind the six forms of the command line: set-up; ping, start and stop;
// progress. Each prints its own failures and returns the exit status: 0 for success, 1 for any
// failure. But a set-up prints nothing for a backing path that is empty or too long. Paths are used
// exactly as given; a relative one is relative to the current directory.

/// Sets up a restore: creates `file`, empty and new, and gives it the tag stream with
/// `backingPath` and `strategy`. After a failure it tries to delete the file again. It never
/// touches an existing file, unless Windows reads the name in another way (docs/failures.md).
int prepareRestore(std::wstring file, std::wstring backingPath, const RestoreStrategy& strategy);

/// Sends `request` (ping, start or stop) to the restore filter's port for the volume that holds the
/// local file `path`, and prints each step.
int sendControlRequest(std::wstring path, const ControlRequest& request);

/// Queries the progress of the restoration of the local file `path`; prints nothing on success.
/// `progress` is valid only after a result of 0.
int queryProgress(std::wstring path, ProgressInfo& progress);
