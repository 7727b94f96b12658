#pragma once

#include <windows.h>

#include <string>

/// Reads the tag of the file that `file` is open on: `backingPath` becomes the path in it, in
/// UTF-8. Its strategy is advice; a start brings its own. S_OK, or as an HRESULT
/// ERROR_NOT_FOUND when the file has no tag, ERROR_INVALID_DATA when the tag is not whole and
/// sound, and ERROR_ACCESS_DENIED when others than root and this process's user may have chosen
/// it: the file or the tag belongs to another, others can write the tag, or it has a second link.
HRESULT readTagOf(int file, std::string& backingPath);
