#pragma once

#include <string>

/// The backing path in the NT object namespace, where the restore filter looks
/// it up: "\??\" before a drive-letter path (the first colon is its second code
/// unit), "\Device\Mup" before a UNC path less one of its two backslashes. A
/// path of any other form comes back unchanged. Only the prefix is touched, and
/// nothing is checked on disk.
std::wstring toNtPath(const std::wstring& backingPath);
