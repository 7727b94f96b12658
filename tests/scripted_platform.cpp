#include "tests/scripted_platform.h"

#include <iostream>
#include <optional>
#include <sstream>

#include "app/wmain.h"

namespace scripted {

machine now;

std::string utf8(const std::wstring& text) {
  std::string bytes(3 * text.size() + 1, '\0');
  const int size = text.empty()
                       ? 0
                       : WideCharToMultiByte(CP_UTF8, 0, text.data(), int(text.size()),
                                             bytes.data(), int(bytes.size()), nullptr, nullptr);
  bytes.resize(std::size_t(size));
  return bytes;
}

outcome run(const std::vector<std::wstring>& arguments) {
  std::vector<std::wstring> words{L"zan_restore"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<wchar_t*> pointers;
  for (std::wstring& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  std::stringbuf captured;
  std::streambuf* const previous = std::cout.rdbuf(&captured);
  const int status = wmain(int(words.size()), pointers.data());
  std::cout.rdbuf(previous);
  return {status, captured.str()};
}

namespace {

std::string hexadecimal(std::uint64_t value) {
  std::ostringstream text;
  text << std::hex << value;
  return text.str();
}

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

}  // namespace
}  // namespace scripted

using scripted::enter;
using scripted::fails;
using scripted::hexadecimal;
using scripted::now;
using scripted::utf8;

// On Windows the program calls kernel32 through import pointers, and these take
// their place for the whole test program; fltlib's names are plain functions.
#ifdef _WIN32
#define KERNEL32(name) scripted_##name
#define REPLACE(name) decltype(&name) __imp_##name = scripted_##name
#else
#define KERNEL32(name) name
#endif

extern "C" {

HANDLE WINAPI KERNEL32(CreateFileW)(LPCWSTR path, DWORD access, DWORD share,
                                    LPSECURITY_ATTRIBUTES security, DWORD disposition,
                                    DWORD attributes, HANDLE templateFile) {
  const auto code = enter("CreateFileW", utf8(path), hexadecimal(access), hexadecimal(share),
                          security == nullptr ? "-" : "security", disposition,
                          hexadecimal(attributes), templateFile == nullptr ? "-" : "template");
  if (fails(code)) return INVALID_HANDLE_VALUE;
  const bool exists = now.files.contains(path);
  if (exists == (disposition == CREATE_NEW)) {
    SetLastError(exists ? ERROR_FILE_EXISTS : ERROR_FILE_NOT_FOUND);
    return INVALID_HANDLE_VALUE;
  }
  now.files.insert(path);
  return scripted::opened(path);
}

BOOL WINAPI KERNEL32(WriteFile)(HANDLE file, LPCVOID data, DWORD size, LPDWORD written,
                                LPOVERLAPPED overlapped) {
  const auto code =
      enter("WriteFile", utf8(now.open.at(file)), size, overlapped == nullptr ? "-" : "overlapped");
  *written = size;
  if (code == scripted::shortWrite) {
    *written = size - 1;
    return TRUE;
  }
  if (fails(code)) return FALSE;
  now.content[now.open.at(file)].append(static_cast<const char*>(data), size);
  return TRUE;
}

BOOL WINAPI KERNEL32(CloseHandle)(HANDLE handle) {
  const auto found = now.open.find(handle);
#ifdef _WIN32
  if (found == now.open.end()) return TRUE;  // one of the runtime library's own
#endif
  const auto code = enter("CloseHandle", found == now.open.end() ? "?" : utf8(found->second));
  if (found != now.open.end()) now.open.erase(found);
  return fails(code) ? FALSE : TRUE;
}

BOOL WINAPI KERNEL32(DeleteFileW)(LPCWSTR path) {
  if (fails(enter("DeleteFileW", utf8(path)))) return FALSE;
  const std::wstring name = path;
  std::erase_if(now.files, [&](const std::wstring& file) {
    return file == name || file.compare(0, name.size() + 1, name + L':') == 0;
  });
  return TRUE;
}

HANDLE WINAPI KERNEL32(GetStdHandle)(DWORD) { return nullptr; }

BOOL WINAPI KERNEL32(GetConsoleMode)(HANDLE, LPDWORD) { return now.hasConsole ? TRUE : FALSE; }

BOOL WINAPI KERNEL32(WriteConsoleW)(HANDLE, LPCVOID units, DWORD count, LPDWORD written, LPVOID) {
  now.console.append(static_cast<const wchar_t*>(units), count);
  *written = count;
  return TRUE;
}

#ifdef _WIN32
REPLACE(CreateFileW);
REPLACE(WriteFile);
REPLACE(CloseHandle);
REPLACE(DeleteFileW);
REPLACE(GetStdHandle);
REPLACE(GetConsoleMode);
REPLACE(WriteConsoleW);
#endif

}  // extern "C"
