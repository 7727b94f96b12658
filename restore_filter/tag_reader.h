#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

/// Reads one tag record of `size` bytes: `backingPath` becomes the path in it, in
/// UTF-8. S_OK, or ERROR_INVALID_DATA as an HRESULT when the record is not whole
/// and sound. Its strategy is advice; a start brings its own.
HRESULT readTag(const void* bytes, std::size_t size, std::string& backingPath);

/// Reads the tag of the file that `file` is open on. Also ERROR_NOT_FOUND when it has none,
/// and ERROR_ACCESS_DENIED when others than root and this process's user may have chosen it:
/// the file or the tag belongs to another, others can write the tag, or it has a second link.
HRESULT readTagOf(int file, std::string& backingPath);
