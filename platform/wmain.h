#pragma once

/// The entry: runs the command that the arguments select and returns its exit status, 0 or 1.
/// `argv` has the program's name first, in UTF-16 with one code unit per wchar_t. Never throws.
extern "C" int wmain(int argc, wchar_t** argv);
