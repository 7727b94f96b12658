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

struct volume {
  std::wstring id;                    // "Volume{GUID}"
  std::vector<std::wstring> devices;  // what QueryDosDeviceW answers
};

struct machine {
  // What the test says. A key of `failing` is "CALL#n" for its n-th use, "CALL"
  // for every use; the value is the error code or HRESULT that it fails with.
  std::map<std::string, DWORD> failing;
  std::set<std::wstring> files;
  bool hasConsole = false;
  std::wstring mountPoint = L"C:\\";
  std::wstring mountedVolume;  // what GetVolumeNameForVolumeMountPointW answers
  std::vector<volume> volumes;
  std::vector<std::string> instances;  // Filter Manager records
  std::string reply;                   // of the filter to a message

  // What happened: a line a call, the bytes written, what is still open and what
  // the debug monitor and a console show.
  std::vector<std::string> calls;
  std::map<std::wstring, std::string> content;
  std::map<HANDLE, std::wstring> open;
  std::vector<std::string> traces;
  std::wstring console;
  std::map<std::string, int> uses;
  int delivered = 0;  // messages that the filter accepted
  std::size_t nextInstance = 0;
  std::size_t nextVolume = 0;
};

/// The one machine; a test starts with `now = {}`.
extern machine now;

struct outcome {
  int status;
  std::string output;  // wide and narrow lines in their order, "\n" line ends
};

/// Runs the program's entry with these arguments after its name, joined by "|" in the
/// second form. The allocation of this index (from 1) fails; 0: none does.
outcome run(const std::vector<std::wstring>& arguments, int failingAllocation = 0);
outcome run(const std::wstring& arguments, int failingAllocation = 0);

std::string utf8(const std::wstring& text);

}  // namespace scripted
