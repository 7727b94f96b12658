#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

// A machine in memory behind the names of kernel32 and fltlib: it records every
// call with its arguments, plays back what the test says and can fail any call.
namespace scripted {

constexpr DWORD shortWrite = 0xFFFFFFFF;  // for WriteFile: success, but a byte short

struct machine {
  // What the test says. A key of `failing` is "CALL#n" for its n-th use, "CALL"
  // for every use; the value is the error code or HRESULT that it fails with.
  std::map<std::string, DWORD> failing;
  std::set<std::wstring> files;
  bool hasConsole = false;

  // What happened: a line a call, the bytes written and what is still open.
  std::vector<std::string> calls;
  std::map<std::wstring, std::string> content;
  std::wstring console;
  std::map<HANDLE, std::wstring> open;
  std::map<std::string, int> uses;
};

/// The one machine; a test starts with `now = {}`.
extern machine now;

struct outcome {
  int status;
  std::string output;  // wide and narrow lines in their order, "\n" line ends
};

/// Runs the program's entry with these arguments after its name.
outcome run(const std::vector<std::wstring>& arguments);

std::string utf8(const std::wstring& text);

}  // namespace scripted
