#pragma once

/// The entry: runs the one command that the arguments name and returns its exit
/// status, 0 or 1. `argv` holds UTF-16 code units, one a wchar_t, and the
/// program's own name first. Throws nothing.
extern "C" int wmain(int argc, wchar_t** argv);
