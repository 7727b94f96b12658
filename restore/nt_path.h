#pragma once

#include <string>

/// Returns the backing path in the NT object namespace, where the restore filter looks it up:
/// "\??\" before a drive-letter path (the first colon is its second code unit), "\Device\Mup"
/// before a UNC path less one of its two backslashes. Any other path is returned unchanged. Changes
/// only the prefix and checks nothing on the disk.
std::wstring toNtPath(const std::wstring& backingPath);
