#pragma once

#include <string>

/// Returns the backing path in the NT object namespace, where the restore filter looks it up:
/// a drive-letter path (the first colon is its second code unit) gets "\??\" in front, a UNC path
/// gets "\Device\Mup" in place of its first backslash. Any other path is returned unchanged.
/// Changes only the prefix and checks nothing on the disk.
std::wstring toNtPath(const std::wstring& backingPath);
