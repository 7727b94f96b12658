#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

/// Reads one tag record of `size` bytes: `backingPath` becomes the path in it, in
/// UTF-8. S_OK, or ERROR_INVALID_DATA as an HRESULT when the record is not whole
/// and sound. Its strategy is advice; a start brings its own.
HRESULT readTag(const void* bytes, std::size_t size, std::string& backingPath);

/// Reads the tag of the file that `file` is open on. Also ERROR_NOT_FOUND when it
/// has none, and ERROR_ACCESS_DENIED when that is neither this process's user's nor root's.
HRESULT readTagOf(int file, std::string& backingPath);
