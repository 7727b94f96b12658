#pragma once

#include <windows.h>

#include <map>
#include <string>
#include <vector>

// A machine in memory that implements the functions of kernel32 and fltlib. It records calls,
// answers as the test says, and can fail each recorded call and each allocation.
namespace scripted {

// A code with a meaning of its own in `failing`.
constexpr DWORD shortWrite = 0xFFFFFFFF;  // WriteFile succeeds, but a byte short

/// A volume as the system writes it, zeros included: "\\?\Volume{GUID}\" and a zero, and the list
/// of its device names.
struct volume {
  std::wstring name;
  std::wstring devices;
};

struct machine {
  // What the test says. A key of `failing` is "CALL#n" for its n-th use, "CALL" for every use; the
  // value is the error code or HRESULT that it fails with.
  std::map<std::string, DWORD> failing;
  std::map<std::wstring, std::string> files;  // with their content
  bool hasConsole = false;
  std::wstring mountedVolume;  // what GetVolumeNameForVolumeMountPointW answers
  std::vector<volume> volumes;
  std::vector<std::string> instances;  // Filter Manager records
  std::string reply;                   // of the filter to a message

  // What happened: a line per call, what is still open, what the debug monitor, the console and the
  // standard error show, and how far the lists were read.
  std::vector<std::string> calls;
  std::map<HANDLE, std::wstring> open;
  std::vector<std::string> traces;
  std::wstring console;
  std::string errors;
  int delivered = 0;  // messages that the filter accepted
  std::size_t nextInstance = 0;
  std::size_t nextVolume = 0;
};

/// The one machine; a test starts with `world = {}` or `world = attachedMachine()`.
extern machine world;

/// How often the program has called this function.
std::ptrdiff_t uses(const std::string& call);

// What the control commands expect: three volumes with the restore filter attached to all of them,
// the second with two device names, and a local file f on the third.
inline const std::wstring firstVolume = L"Volume{11111111-1111-1111-1111-111111111111}";
inline const std::wstring secondVolume = L"Volume{22222222-2222-2222-2222-222222222222}";
inline const std::wstring fileVolume = L"Volume{abcdefab-3333-3333-3333-333333333333}";
machine attachedMachine();

/// What the system calls the volume with this id.
std::wstring nameOfVolume(const std::wstring& id);

/// A Filter Manager record of an instance on the volume `device`, with `pad` bytes between its
/// fields and its texts.
std::string instanceRecord(const std::wstring& device, bool isLegacy = false, std::size_t pad = 0);

struct outcome {
  int status;
  std::string output;  // wide and narrow lines in their order, "\n" line ends
};

/// Runs the program's entry. `arguments` are those after the program's name, separated by "|". The
/// allocation of this index (from 1) fails; 0: none does.
outcome run(const std::wstring& arguments, int allocation = 0);

/// The allocations that the program has made in this run, and the one that fails; counted and
/// failed only while isProgram is true.
extern bool isProgram;
extern int allocations;
extern int failingAllocation;

std::string utf8(const std::wstring& text);

}  // namespace scripted
