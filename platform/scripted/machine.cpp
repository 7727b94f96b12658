#include "platform/scripted/machine.h"

#include <fltuser.h>
#include <windows.h>

#include <cstring>
#include <cwchar>
#include <iostream>
#include <optional>
#include <sstream>

#include "app/wmain.h"
#include "platform/scripted/failing_allocation.h"

namespace scripted {

machine now;

namespace {

class captured_output : public std::streambuf {
 public:
  std::string text;

 protected:
  int_type overflow(int_type byte) override {
    const char last = traits_type::to_char_type(byte);
    return xsputn(&last, 1) == 1 ? byte : traits_type::eof();
  }
  std::streamsize xsputn(const char* bytes, std::streamsize size) override {
    const outside_program here;
    text.append(bytes, std::size_t(size));
    return size;
  }
};

}  // namespace

std::string utf8(const std::wstring& text) {
  std::string bytes(3 * text.size() + 1, '\0');
  const int size = text.empty()
                       ? 0
                       : WideCharToMultiByte(CP_UTF8, 0, text.data(), int(text.size()),
                                             bytes.data(), int(bytes.size()), nullptr, nullptr);
  bytes.resize(std::size_t(size));
  return bytes;
}

outcome run(const std::vector<std::wstring>& arguments, int failingAllocation) {
  std::vector<std::wstring> words{L"zan_restore"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<wchar_t*> pointers;
  for (std::wstring& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  captured_output captured;
  std::streambuf* const previous = std::cout.rdbuf(&captured);
  const int status =
      whileAllocating(failingAllocation, [&] { return wmain(int(words.size()), pointers.data()); });
  std::cout.rdbuf(previous);
  return {status, captured.text};
}

outcome run(const std::wstring& arguments, int failingAllocation) {
  std::vector<std::wstring> words;
  std::wistringstream rest(arguments + L'|');
  for (std::wstring word; std::getline(rest, word, L'|');) words.push_back(word);
  return run(words, failingAllocation);
}

namespace {

std::string hexadecimal(std::uint64_t value) {
  std::ostringstream text;
  text << std::hex << value;
  return text.str();
}

std::string bytes(const void* data, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    constexpr char digits[] = "0123456789abcdef";
    const auto value = static_cast<const BYTE*>(data)[i];
    text += {digits[value >> 4], digits[value & 15]};
  }
  return text;
}

const char* none(const void* pointer) { return pointer == nullptr ? "-" : "something"; }

// Records the call, and tells with which code it fails, if it does.
template <typename... Arguments>
std::optional<DWORD> enter(const std::string& name, const Arguments&... arguments) {
  std::ostringstream line;
  line << name;
  ((line << ' ' << arguments), ...);
  now.calls.push_back(line.str());
  const std::string use = name + '#' + std::to_string(++now.uses[name]);
  for (const std::string& key : {use, name}) {
    if (const auto found = now.failing.find(key); found != now.failing.end()) return found->second;
  }
  return std::nullopt;
}

bool fails(std::optional<DWORD> code) {
  if (code) SetLastError(*code);
  return code.has_value();
}

HANDLE opened(const std::wstring& what) {
  static std::intptr_t next = 0x5A000000;
  const auto handle = reinterpret_cast<HANDLE>(next += 4);
  now.open[handle] = what;
  return handle;
}

std::string nameOf(HANDLE handle) {
  if (handle == INVALID_HANDLE_VALUE) return "invalid";
  const auto found = now.open.find(handle);
  return found == now.open.end() ? "?" : utf8(found->second);
}

BOOL answer(const std::wstring& text, LPWSTR buffer, DWORD size) {
  if (text.size() + 1 > size) {
    SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return FALSE;
  }
  std::wmemcpy(buffer, text.c_str(), text.size() + 1);
  return TRUE;
}

BOOL answerVolume(LPWSTR name, DWORD size) {
  if (now.nextVolume < now.volumes.size()) {
    return answer(L"\\\\?\\" + now.volumes[now.nextVolume++].id + L'\\', name, size);
  }
  SetLastError(ERROR_NO_MORE_FILES);
  return FALSE;
}

HRESULT answerInstance(LPVOID buffer, DWORD size) {
  if (now.nextInstance == now.instances.size()) return HRESULT_FROM_WIN32(ERROR_NO_MORE_ITEMS);
  const std::string& record = now.instances[now.nextInstance];
  if (record.size() > size) return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
  std::memcpy(buffer, record.data(), record.size());
  ++now.nextInstance;
  return S_OK;
}

}  // namespace
}  // namespace scripted

using namespace scripted;

// On Windows the program calls kernel32 through import pointers, and these take
// their place for the whole test program; fltlib's names are plain functions.
#ifdef _WIN32
#define KERNEL32(name) scripted_##name
#define REPLACE(name) decltype(&name) __imp_##name = scripted_##name

// The runtime library's own output, where that is linked statically.
static BOOL writeReally(HANDLE file, LPCVOID data, DWORD size, LPDWORD written,
                        LPOVERLAPPED overlapped) {
  static const auto address =
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "WriteFile"));
  return reinterpret_cast<decltype(&WriteFile)>(address)(file, data, size, written, overlapped);
}
#else
#define KERNEL32(name) name
#endif

extern "C" {

HANDLE WINAPI KERNEL32(CreateFileW)(LPCWSTR path, DWORD access, DWORD share,
                                    LPSECURITY_ATTRIBUTES security, DWORD disposition,
                                    DWORD attributes, HANDLE templateFile) {
  const outside_program here;
  const auto code = enter("CreateFileW", utf8(path), hexadecimal(access), hexadecimal(share),
                          none(security), disposition, hexadecimal(attributes), none(templateFile));
  if (fails(code)) return INVALID_HANDLE_VALUE;
  const bool exists = now.files.contains(path);
  if (exists == (disposition == CREATE_NEW)) {
    SetLastError(exists ? ERROR_FILE_EXISTS : ERROR_FILE_NOT_FOUND);
    return INVALID_HANDLE_VALUE;
  }
  now.files.insert(path);
  return opened(path);
}

BOOL WINAPI KERNEL32(WriteFile)(HANDLE file, LPCVOID data, DWORD size, LPDWORD written,
                                LPOVERLAPPED overlapped) {
  const outside_program here;
#ifdef _WIN32
  if (!now.open.contains(file)) return writeReally(file, data, size, written, overlapped);
#endif
  const auto code = enter("WriteFile", nameOf(file), size, none(overlapped));
  *written = size;
  if (code == shortWrite) {
    *written = size - 1;
    return TRUE;
  }
  if (fails(code)) return FALSE;
  now.content[now.open.at(file)].append(static_cast<const char*>(data), size);
  return TRUE;
}

BOOL WINAPI KERNEL32(CloseHandle)(HANDLE handle) {
  const outside_program here;
#ifdef _WIN32
  if (!now.open.contains(handle)) return TRUE;  // one of the runtime library's own
#endif
  const auto code = enter("CloseHandle", nameOf(handle));
  now.open.erase(handle);
  return fails(code) ? FALSE : TRUE;
}

BOOL WINAPI KERNEL32(DeleteFileW)(LPCWSTR path) {
  const outside_program here;
  if (fails(enter("DeleteFileW", utf8(path)))) return FALSE;
  const std::wstring name = path;
  std::erase_if(now.files, [&](const std::wstring& file) {
    return file == name || file.compare(0, name.size() + 1, name + L':') == 0;
  });
  return TRUE;
}

BOOL WINAPI KERNEL32(GetVolumePathNameW)(LPCWSTR path, LPWSTR mountPoint, DWORD size) {
  const outside_program here;
  if (fails(enter("GetVolumePathNameW", utf8(path), size))) return FALSE;
  return answer(now.mountPoint, mountPoint, size);
}

BOOL WINAPI KERNEL32(GetVolumeNameForVolumeMountPointW)(LPCWSTR mountPoint, LPWSTR name,
                                                        DWORD size) {
  const outside_program here;
  if (fails(enter("GetVolumeNameForVolumeMountPointW", utf8(mountPoint), size))) return FALSE;
  return answer(now.mountedVolume, name, size);
}

HANDLE WINAPI KERNEL32(FindFirstVolumeW)(LPWSTR name, DWORD size) {
  const outside_program here;
  now.nextVolume = 0;
  if (fails(enter("FindFirstVolumeW", size)) || !answerVolume(name, size)) {
    return INVALID_HANDLE_VALUE;
  }
  return opened(L"volumes");
}

BOOL WINAPI KERNEL32(FindNextVolumeW)(HANDLE volumes, LPWSTR name, DWORD size) {
  const outside_program here;
  if (fails(enter("FindNextVolumeW", nameOf(volumes), size))) return FALSE;
  return answerVolume(name, size);
}

BOOL WINAPI KERNEL32(FindVolumeClose)(HANDLE volumes) {
  const outside_program here;
  const auto code = enter("FindVolumeClose", nameOf(volumes));
  now.open.erase(volumes);
  return fails(code) ? FALSE : TRUE;
}

DWORD WINAPI KERNEL32(QueryDosDeviceW)(LPCWSTR name, LPWSTR devices, DWORD size) {
  const outside_program here;
  if (fails(enter("QueryDosDeviceW", utf8(name), size))) return 0;
  std::wstring text;
  for (const volume& each : now.volumes) {
    if (each.id != name) continue;
    for (const std::wstring& device : each.devices) text += device + L'\0';
  }
  text += L'\0';
  if (text.size() > size) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  std::wmemcpy(devices, text.data(), text.size());
  return DWORD(text.size());
}

void WINAPI KERNEL32(OutputDebugStringW)(LPCWSTR text) {
  const outside_program here;
  now.traces.push_back(utf8(text));
}

#ifndef _WIN32
HANDLE WINAPI GetStdHandle(DWORD) { return nullptr; }
#endif

BOOL WINAPI KERNEL32(GetConsoleMode)(HANDLE, LPDWORD) { return now.hasConsole ? TRUE : FALSE; }

BOOL WINAPI KERNEL32(WriteConsoleW)(HANDLE, LPCVOID units, DWORD count, LPDWORD written, LPVOID) {
  const outside_program here;
  now.console.append(static_cast<const wchar_t*>(units), count);
  *written = count;
  return TRUE;
}

HRESULT WINAPI FilterInstanceFindFirst(LPCWSTR filterName, INSTANCE_INFORMATION_CLASS what,
                                       LPVOID buffer, DWORD size, LPDWORD, LPHANDLE search) {
  const outside_program here;
  const auto code = enter("FilterInstanceFindFirst", utf8(filterName), int(what), size);
  const HRESULT result = code ? HRESULT(*code) : answerInstance(buffer, size);
  if (result == S_OK) *search = opened(L"instances");
  return result;
}

HRESULT WINAPI FilterInstanceFindNext(HANDLE search, INSTANCE_INFORMATION_CLASS what, LPVOID buffer,
                                      DWORD size, LPDWORD) {
  const outside_program here;
  const auto code = enter("FilterInstanceFindNext", nameOf(search), int(what), size);
  return code ? HRESULT(*code) : answerInstance(buffer, size);
}

HRESULT WINAPI FilterInstanceFindClose(HANDLE search) {
  const outside_program here;
  const auto code = enter("FilterInstanceFindClose", nameOf(search));
  now.open.erase(search);
  return code ? HRESULT(*code) : S_OK;
}

HRESULT WINAPI FilterConnectCommunicationPort(LPCWSTR name, DWORD options, LPCVOID context,
                                              WORD size, LPSECURITY_ATTRIBUTES security,
                                              HANDLE* port) {
  const outside_program here;
  const auto code = enter("FilterConnectCommunicationPort", utf8(name), options,
                          bytes(context, size), none(security), nameOf(*port));
  const HRESULT result = code ? HRESULT(*code) : S_OK;
  if (result >= 0) *port = opened(L"port");
  return result;
}

// The handle in the message is shown by the name of what it is open on.
HRESULT WINAPI FilterSendMessage(HANDLE port, LPVOID input, DWORD inputSize, LPVOID output,
                                 DWORD outputSize, LPDWORD returned) {
  const outside_program here;
  std::uint64_t file = 0;
  std::memcpy(&file, input, sizeof(file));
  const auto code =
      enter("FilterSendMessage", nameOf(port),
            nameOf(reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(file))),
            bytes(static_cast<BYTE*>(input) + 8, inputSize - 8), none(output), outputSize);
  if (code) return HRESULT(*code);
  if (port == INVALID_HANDLE_VALUE) return HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);
  ++now.delivered;
  *returned = DWORD(now.reply.size());
  if (!now.reply.empty()) std::memcpy(output, now.reply.data(), now.reply.size());
  return S_OK;
}

#ifdef _WIN32
REPLACE(CreateFileW);
REPLACE(WriteFile);
REPLACE(CloseHandle);
REPLACE(DeleteFileW);
REPLACE(GetVolumePathNameW);
REPLACE(GetVolumeNameForVolumeMountPointW);
REPLACE(FindFirstVolumeW);
REPLACE(FindNextVolumeW);
REPLACE(FindVolumeClose);
REPLACE(QueryDosDeviceW);
REPLACE(OutputDebugStringW);
REPLACE(GetConsoleMode);
REPLACE(WriteConsoleW);
#endif

}  // extern "C"
