#include "tests/scripted_machine.h"

#include <windows.h>
// after <windows.h>:
#include <fltuser.h>

#include <algorithm>
#include <boost/algorithm/hex.hpp>
#include <boost/algorithm/string.hpp>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <iostream>
#include <iterator>
#include <optional>
#include <span>
#include <sstream>
#include <utility>

#include "platform/wide_path.h"
#include "platform/wmain.h"

namespace scripted {

machine world;

namespace {

// While it lives, allocations are not counted as the program's and do not fail.
struct outside_program {
  ~outside_program() { isProgram = wasProgram; }
  const bool wasProgram = std::exchange(isProgram, false);
};

}  // namespace

std::string utf8(const std::wstring& text) { return zan::textOf(zan::hostPath(text)); }

outcome run(const std::wstring& arguments, int allocation) {
  std::vector<std::wstring> words;
  boost::split(words, L"zan_restore|" + arguments, [](wchar_t unit) { return unit == L'|'; });
  if (arguments.empty()) words.pop_back();
  std::vector<wchar_t*> pointers;
  for (std::wstring& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  // Large enough for what is printed, so that printing is no allocation of the program.
  std::stringbuf output(std::string(1 << 16, '\0'), std::ios::out);
  std::stringbuf errors(std::string(1 << 10, '\0'), std::ios::out);
  std::streambuf* const previous[] = {std::cout.rdbuf(&output), std::cerr.rdbuf(&errors)};
  std::wcout << std::dec;  // as in a new process
  allocations = 0;
  failingAllocation = allocation;
  isProgram = true;
  const int status = wmain(int(words.size()), pointers.data());
  isProgram = false;
  std::cout.rdbuf(previous[0]);
  std::cerr.rdbuf(previous[1]);
  world.errors = errors.view().data();  // up to the first zero
  return {status, output.view().data()};
}

std::ptrdiff_t uses(const std::string& call) {
  return std::count_if(world.calls.begin(), world.calls.end(),
                       [&](const std::string& line) { return line.starts_with(call + ' '); });
}

std::wstring nameOfVolume(const std::wstring& id) { return L"\\\\?\\" + id + L'\\' + L'\0'; }

std::string instanceRecord(const std::wstring& device, bool isLegacy, std::size_t pad) {
  INSTANCE_AGGREGATE_STANDARD_INFORMATION header{};
  std::string texts(pad, '\0');
  const auto place = [&](const std::wstring& text, USHORT& length, USHORT& offset) {
    offset = static_cast<USHORT>(sizeof(header) + texts.size());
    length = static_cast<USHORT>(2 * text.size());
    for (const wchar_t unit : text) {
      texts += {static_cast<char>(unit & 0xFF), static_cast<char>(unit >> 8 & 0xFF)};
    }
  };
  const auto placeAll = [&](auto& fields, const wchar_t* altitude, const wchar_t* filter) {
    fields.Flags = 3;
    place(altitude, fields.AltitudeLength, fields.AltitudeBufferOffset);
    place(device, fields.VolumeNameLength, fields.VolumeNameBufferOffset);
    place(filter, fields.FilterNameLength, fields.FilterNameBufferOffset);
  };
  header.Flags = isLegacy ? 2 : 1;
  if (isLegacy) {
    placeAll(header.Type.LegacyFilter, L"40500", L"old");
  } else {
    auto& mini = header.Type.MiniFilter;
    mini.FrameID = 5;
    mini.VolumeFileSystemType = static_cast<FLT_FILESYSTEM_TYPE>(2);
    place(L"inst\x4E2D", mini.InstanceNameLength, mini.InstanceNameBufferOffset);
    placeAll(mini, L"180000", L"zan_restore_filter");
  }
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + texts;
}

machine attachedMachine() {
  machine attached;
  attached.files = {{L"f", ""}};
  attached.mountedVolume = nameOfVolume(fileVolume);
  attached.volumes = {{nameOfVolume(firstVolume), {L"\\Device\\V1\0\0", 12}},
                      {nameOfVolume(secondVolume), {L"\\Device\\V2\0\\Device\\V3\0\0", 23}},
                      {nameOfVolume(fileVolume), {L"\\Device\\V3\0\0", 12}}};
  attached.instances = {instanceRecord(L"\\Device\\V2"), instanceRecord(L"\\Device\\V3"),
                        instanceRecord(L"\\Device\\V1")};
  return attached;
}

namespace {

// How an argument is recorded: numbers in hexadecimal, a handle as what it is open on.
DWORD shown(DWORD number) { return number; }
std::string shown(LPCWSTR text) { return utf8(text); }
std::string shown(std::span<const BYTE> bytes) {
  std::string digits;
  boost::algorithm::hex_lower(bytes.begin(), bytes.end(), std::back_inserter(digits));
  return digits;
}
std::string shown(HANDLE handle) {
  if (handle == INVALID_HANDLE_VALUE) return "invalid";
  const auto found = world.open.find(handle);
  return found == world.open.end() ? "?" : utf8(found->second);
}

// One call of the program, recorded; `code` is what it fails with, if it does.
class call : outside_program {
 public:
  template <typename... Arguments>
  explicit call(const char* function, const Arguments&... arguments) {
    const std::string name = function;
    std::ostringstream line;
    line << name << std::hex;
    ((line << ' ' << shown(arguments)), ...);
    world.calls.push_back(line.str());
    for (const auto& key : {name + '#' + std::to_string(uses(name)), name}) {
      const auto found = world.failing.find(key);
      if (found == world.failing.end()) continue;
      code = found->second;
      SetLastError(found->second);
      return;
    }
  }
  std::optional<DWORD> code;
};

HANDLE opened(const std::wstring& what) {
  static std::intptr_t next = 0x5A000000;
  const auto handle = reinterpret_cast<HANDLE>(next += 4);
  world.open[handle] = what;
  return handle;
}

// Copies a text as the system writes it. Returns its units, or 0 with `code` as the last error.
DWORD answer(const std::wstring& text, LPWSTR buffer, DWORD size, DWORD code) {
  if (text.size() > size) {
    SetLastError(code);
    return 0;
  }
  std::wmemcpy(buffer, text.data(), text.size());
  return DWORD(text.size());
}

BOOL answerVolume(LPWSTR name, DWORD size) {
  if (world.nextVolume < world.volumes.size()) {
    return answer(world.volumes[world.nextVolume++].name, name, size, ERROR_FILENAME_EXCED_RANGE) !=
           0;
  }
  SetLastError(ERROR_NO_MORE_FILES);
  return FALSE;
}

HRESULT answerInstance(LPVOID buffer, DWORD size) {
  if (world.nextInstance == world.instances.size()) return HRESULT_FROM_WIN32(ERROR_NO_MORE_ITEMS);
  const std::string& record = world.instances[world.nextInstance];
  if (record.size() > size) return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
  std::memcpy(buffer, record.data(), record.size());
  ++world.nextInstance;
  return S_OK;
}

}  // namespace
}  // namespace scripted

using namespace scripted;

// On Windows the program calls kernel32 through import pointers. The definitions below replace
// these pointers in the whole test program. It calls fltlib directly.
extern "C" {

#ifdef _WIN32
#define KERNEL32(result, name, ...)                          \
  result WINAPI scripted_##name(__VA_ARGS__);                \
  decltype(&scripted_##name) __imp_##name = scripted_##name; \
  result WINAPI scripted_##name(__VA_ARGS__)

// The real WriteFile: a statically linked runtime library calls the replacement too.
static BOOL writeReally(HANDLE file, LPCVOID data, DWORD size, LPDWORD written,
                        LPOVERLAPPED overlapped) {
  static const auto address =
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "WriteFile"));
  return reinterpret_cast<decltype(&WriteFile)>(address)(file, data, size, written, overlapped);
}
#else
#define KERNEL32(result, name, ...) result WINAPI name(__VA_ARGS__)
#endif

KERNEL32(HANDLE, CreateFileW, LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES,
         DWORD disposition, DWORD attributes, HANDLE) {
  const call made("CreateFileW", path, access, share, disposition, attributes);
  if (made.code) return INVALID_HANDLE_VALUE;
  const bool exists = world.files.contains(path);
  if (exists == (disposition == CREATE_NEW)) {
    SetLastError(exists ? ERROR_FILE_EXISTS : ERROR_FILE_NOT_FOUND);
    return INVALID_HANDLE_VALUE;
  }
  world.files[path];
  return opened(path);
}

KERNEL32(BOOL, WriteFile, HANDLE file, LPCVOID data, DWORD size, LPDWORD written,
         [[maybe_unused]] LPOVERLAPPED place) {
#ifdef _WIN32
  if (!world.open.contains(file)) return writeReally(file, data, size, written, place);
#endif
  const call made("WriteFile", file, size);
  *written = made.code == shortWrite ? size - 1 : size;
  if (made.code) return made.code == shortWrite ? TRUE : FALSE;
  world.files[world.open.at(file)].append(static_cast<const char*>(data), size);
  return TRUE;
}

KERNEL32(BOOL, CloseHandle, HANDLE handle) {
#ifdef _WIN32
  if (!world.open.contains(handle)) return TRUE;  // one of the runtime library's own
#endif
  const call made("CloseHandle", handle);
  world.open.erase(handle);
  return made.code ? FALSE : TRUE;
}

KERNEL32(BOOL, DeleteFileW, LPCWSTR path) {
  const call made("DeleteFileW", path);
  if (made.code) return FALSE;
  const std::wstring streams = std::wstring(path) + L':';
  world.files.erase(path);
  std::erase_if(world.files, [&](const auto& file) { return file.first.starts_with(streams); });
  return TRUE;
}

KERNEL32(BOOL, GetVolumePathNameW, LPCWSTR path, LPWSTR mountPoint, DWORD size) {
  const call made("GetVolumePathNameW", path, size);
  return !made.code && answer({L"C:\\\0", 4}, mountPoint, size, ERROR_FILENAME_EXCED_RANGE) != 0;
}

KERNEL32(BOOL, GetVolumeNameForVolumeMountPointW, LPCWSTR mountPoint, LPWSTR name, DWORD size) {
  const call made("GetVolumeNameForVolumeMountPointW", mountPoint, size);
  return !made.code && answer(world.mountedVolume, name, size, ERROR_FILENAME_EXCED_RANGE) != 0;
}

KERNEL32(HANDLE, FindFirstVolumeW, LPWSTR name, DWORD size) {
  const call made("FindFirstVolumeW", size);
  world.nextVolume = 0;
  return made.code || !answerVolume(name, size) ? INVALID_HANDLE_VALUE : opened(L"volumes");
}

KERNEL32(BOOL, FindNextVolumeW, HANDLE volumes, LPWSTR name, DWORD size) {
  const call made("FindNextVolumeW", volumes, size);
  return !made.code && answerVolume(name, size);
}

KERNEL32(BOOL, FindVolumeClose, HANDLE volumes) {
  const call made("FindVolumeClose", volumes);
  world.open.erase(volumes);
  return made.code ? FALSE : TRUE;
}

KERNEL32(DWORD, QueryDosDeviceW, LPCWSTR name, LPWSTR devices, DWORD size) {
  const call made("QueryDosDeviceW", name, size);
  if (made.code) return 0;
  for (const volume& each : world.volumes) {
    if (each.name.find(std::wstring(name) + L'\\') == 4) {
      return answer(each.devices, devices, size, ERROR_INSUFFICIENT_BUFFER);
    }
  }
  SetLastError(ERROR_FILE_NOT_FOUND);
  return 0;
}

KERNEL32(void, OutputDebugStringW, LPCWSTR text) {
  const outside_program here;
  world.traces.push_back(utf8(text));
}

#ifndef _WIN32
HANDLE WINAPI GetStdHandle(DWORD) { return nullptr; }
#endif

KERNEL32(BOOL, GetConsoleMode, HANDLE, LPDWORD) { return world.hasConsole ? TRUE : FALSE; }

KERNEL32(BOOL, WriteConsoleW, HANDLE, const void* units, DWORD count, LPDWORD written, LPVOID) {
  const outside_program here;
  world.console.append(static_cast<const wchar_t*>(units), count);
  *written = count;
  return TRUE;
}

HRESULT WINAPI FilterInstanceFindFirst(LPCWSTR filterName, INSTANCE_INFORMATION_CLASS what,
                                       LPVOID buffer, DWORD size, LPDWORD, LPHANDLE search) {
  const call made("FilterInstanceFindFirst", filterName, DWORD(what), size);
  const HRESULT result = made.code ? HRESULT(*made.code) : answerInstance(buffer, size);
  if (result == S_OK) *search = opened(L"instances");
  return result;
}

HRESULT WINAPI FilterInstanceFindNext(HANDLE search, INSTANCE_INFORMATION_CLASS what, LPVOID buffer,
                                      DWORD size, LPDWORD) {
  const call made("FilterInstanceFindNext", search, DWORD(what), size);
  return made.code ? HRESULT(*made.code) : answerInstance(buffer, size);
}

HRESULT WINAPI FilterInstanceFindClose(HANDLE search) {
  const call made("FilterInstanceFindClose", search);
  world.open.erase(search);
  return HRESULT(made.code.value_or(S_OK));
}

HRESULT WINAPI FilterConnectCommunicationPort(LPCWSTR name, DWORD options, LPCVOID context,
                                              WORD size, LPSECURITY_ATTRIBUTES, HANDLE* port) {
  const call made("FilterConnectCommunicationPort", name, options,
                  std::span(static_cast<const BYTE*>(context), size));
  const auto result = HRESULT(made.code.value_or(S_OK));
  *port = result >= 0 ? opened(L"port") : reinterpret_cast<HANDLE>(0x5A5A);
  return result;
}

// The handle in the message is shown by the name of what it is open on.
HRESULT WINAPI FilterSendMessage(HANDLE port, LPVOID input, DWORD inputSize, LPVOID output,
                                 DWORD outputSize, LPDWORD returned) {
  std::uintptr_t file = 0;
  std::memcpy(&file, input, sizeof(file));
  const call made("FilterSendMessage", port, reinterpret_cast<HANDLE>(file),
                  std::span(static_cast<const BYTE*>(input), inputSize).subspan(sizeof(file)),
                  outputSize);
  if (made.code) return HRESULT(*made.code);
  if (port == INVALID_HANDLE_VALUE) return HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);
  ++world.delivered;
  *returned = DWORD(world.reply.size());
  if (!world.reply.empty()) std::memcpy(output, world.reply.data(), world.reply.size());
  return S_OK;
}
}
