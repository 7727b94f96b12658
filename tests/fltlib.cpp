// The fltlib.dll that the shipped Windows executables meet in their test under Wine. It answers as
// the environment says, and prints a line for each call to standard error. With FLTLIB_FILTER it is
// a filter instead, inside the process.

#include <windows.h>
// after <windows.h>:
#include <fltuser.h>

#include <algorithm>
#include <boost/algorithm/hex.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "zan_restore_filter.h"

namespace {

HRESULT result(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? S_OK : HRESULT(std::strtoul(value, nullptr, 16));
}

std::string hex(const void* bytes, std::size_t size) {
  return boost::algorithm::hex_lower(std::string(static_cast<const char*>(bytes), size));
}

using std::chrono::steady_clock;

const std::string filterMode = std::getenv("FLTLIB_FILTER") ? std::getenv("FLTLIB_FILTER") : "";
constexpr double bytesPerSecond = 100e6;
constexpr DWORD sharing = FILE_SHARE_READ | FILE_SHARE_WRITE;
const HRESULT notFound = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);

HANDLE open(const std::wstring& path, DWORD access, DWORD share = sharing | FILE_SHARE_DELETE) {
  return CreateFileW(path.c_str(), access, share, nullptr, OPEN_EXISTING, 0, nullptr);
}

// A file gets all its bytes at its start, so that programs read nothing else; its progress takes
// its time. FLTLIB_FILTER=growing: it gets them as its progress is asked for.
struct restoration {
  std::string content;
  std::uint64_t done = 0;  // what is told
  std::uint64_t written = 0;
  bool isRunning = false;
  steady_clock::time_point since = {};
  HANDLE held = INVALID_HANDLE_VALUE;  // FLTLIB_FILTER=unshared: without FILE_SHARE_DELETE

  void write(const std::wstring& path, std::uint64_t end) {
    const HANDLE file = open(path, GENERIC_WRITE);
    OVERLAPPED place{};
    place.Offset = DWORD(written);
    DWORD count = 0;
    WriteFile(file, &content[written], DWORD(end - written), &count, &place);
    CloseHandle(file);
    written = end;
  }

  void advance() {
    const std::chrono::duration<double> time = steady_clock::now() - since;
    since = steady_clock::now();
    const auto more = std::uint64_t(isRunning ? time.count() * bytesPerSecond : 0);
    done = std::min<std::uint64_t>(done + more, content.size());
    isRunning = isRunning && done < content.size();
    if (!isRunning && held != INVALID_HANDLE_VALUE) {
      CloseHandle(held);
      held = INVALID_HANDLE_VALUE;
    }
  }
};
std::map<std::uint64_t, restoration> files;  // by their index on the volume
std::mutex handling;

HRESULT readFile(const std::wstring& path, std::string& content, std::uint64_t& index) {
  const HANDLE file = open(path, GENERIC_READ);
  if (file == INVALID_HANDLE_VALUE) return HRESULT_FROM_WIN32(GetLastError());
  BY_HANDLE_FILE_INFORMATION info{};
  GetFileInformationByHandle(file, &info);
  index = std::uint64_t{info.nFileIndexHigh} << 32 | info.nFileIndexLow;
  content.resize(info.nFileSizeLow);
  DWORD count = 0;
  ReadFile(file, content.data(), info.nFileSizeLow, &count, nullptr);
  CloseHandle(file);
  return count == info.nFileSizeLow ? S_OK : E_INVALIDARG;
}

// Reads the tag of a file, and the backing file that it names.
HRESULT readBacking(const std::wstring& path, std::uint64_t index, std::string& content) {
  static constexpr std::uint8_t guid[] = RESTORE_TAG_GUID;
  RestoreTagRecord tag;
  std::string bytes;
  std::uint64_t backingIndex = 0;
  if (readFile(path + RESTORE_TAG_STREAM, bytes, backingIndex) != S_OK) return notFound;
  if (bytes.size() != sizeof(tag)) return E_INVALIDARG;
  std::memcpy(&tag, bytes.data(), sizeof(tag));
  std::wstring backing(tag.path, tag.path + std::min<unsigned>(tag.pathLength / 2, 8168));
  const bool isValid = tag.tag == RESTORE_TAG && tag.dataLength == RESTORE_TAG_DATA_LENGTH &&
                       std::equal(guid, guid + 16, tag.guid) && tag.pathLength % 2 == 0 &&
                       tag.pathOffset == RESTORE_TAG_PATH_OFFSET && tag.pathLength <= 16336 &&
                       backing.starts_with(L"\\??\\") && backing.find(L'\0') == backing.npos;
  if (!isValid) return E_INVALIDARG;
  const HRESULT result = readFile(backing.replace(1, 1, L"\\"), content, backingIndex);
  return result == S_OK && backingIndex == index ? E_INVALIDARG : result;
}

HRESULT handle(const ControlMessage& message, ProgressInfo& reply) {
  const std::lock_guard lock(handling);
  const auto file = reinterpret_cast<HANDLE>(message.fileHandle);
  const ControlOperation operation = message.request.operation;
  BY_HANDLE_FILE_INFORMATION info{};
  wchar_t path[MAX_PATH];
  for (auto& each : files) each.second.advance();
  if (operation > ControlOperation::QueryProgress || !GetFileInformationByHandle(file, &info) ||
      (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ||
      GetFinalPathNameByHandleW(file, path, MAX_PATH, 0) == 0) {
    return E_INVALIDARG;
  }
  if (operation == ControlOperation::Ping) return S_OK;
  const std::uint64_t index = std::uint64_t{info.nFileIndexHigh} << 32 | info.nFileIndexLow;
  auto known = files.find(index);
  if (known != files.end() && info.nFileSizeLow < known->second.written) {
    files.erase(known);  // it was deleted, and a new file has its index
    known = files.end();
  }
  if (operation == ControlOperation::StartAggressiveRestore && known == files.end()) {
    restoration begun;
    const HRESULT result = readBacking(path, index, begun.content);
    if (result != S_OK) return result;
    if (filterMode != "growing") begun.write(path, begun.content.size());
    if (filterMode == "unshared") begun.held = open(path, GENERIC_READ, sharing);
    begun.since = steady_clock::now();
    known = files.emplace(index, std::move(begun)).first;
  }
  if (known == files.end()) return notFound;
  restoration& work = known->second;
  const std::uint64_t size = work.content.size();
  if (filterMode == "growing") work.write(path, work.done);
  if (operation != ControlOperation::QueryProgress) {
    work.isRunning = operation == ControlOperation::StartAggressiveRestore && work.done < size;
  }
  reply = {std::max<std::uint64_t>(work.done, size == 0), std::max<std::uint64_t>(size, 1)};
  return S_OK;
}

}  // namespace

extern "C" {

HRESULT WINAPI FilterInstanceFindFirst(LPCWSTR filter, INSTANCE_INFORMATION_CLASS what,
                                       LPVOID buffer, DWORD, LPDWORD, LPHANDLE) {
  std::fprintf(stderr, "FindFirst %ls %d\n", filter, what);
  static constexpr wchar_t device[] = L"\\Device\\HarddiskVolume1";
  INSTANCE_AGGREGATE_STANDARD_INFORMATION record{};
  record.Flags = FLTFL_IASI_IS_MINIFILTER;
  record.Type.MiniFilter.VolumeNameLength = sizeof(device) - sizeof(device[0]);
  record.Type.MiniFilter.VolumeNameBufferOffset = sizeof(record);
  std::memcpy(buffer, &record, sizeof(record));
  std::memcpy(static_cast<BYTE*>(buffer) + sizeof(record), device, sizeof(device));
  return result("FLTLIB_FIND");
}

HRESULT WINAPI FilterInstanceFindNext(HANDLE, INSTANCE_INFORMATION_CLASS, LPVOID, DWORD, LPDWORD) {
  std::fprintf(stderr, "FindNext\n");
  return HRESULT_FROM_WIN32(ERROR_NO_MORE_ITEMS);
}

HRESULT WINAPI FilterInstanceFindClose(HANDLE) {
  std::fprintf(stderr, "FindClose\n");
  return S_OK;
}

HRESULT WINAPI FilterConnectCommunicationPort(LPCWSTR name, DWORD options, LPCVOID context,
                                              WORD size, LPSECURITY_ATTRIBUTES, HANDLE* port) {
  if (!filterMode.empty() && size != RESTORE_FILTER_CONNECTION_CONTEXT_SIZE) return E_INVALIDARG;
  *port = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  if (!filterMode.empty()) return S_OK;
  std::fprintf(stderr, "Connect %ls %lu %s\n", name, options, hex(context, size).c_str());
  return S_OK;
}

HRESULT WINAPI FilterSendMessage(HANDLE, LPVOID input, DWORD inputSize, LPVOID output,
                                 DWORD outputSize, LPDWORD returned) {
  if (!filterMode.empty()) {
    ControlMessage message;
    ProgressInfo info{};
    if (inputSize != sizeof(message)) return E_INVALIDARG;
    std::memcpy(&message, input, sizeof(message));
    const HRESULT answered = handle(message, info);
    *returned = answered == S_OK ? std::min(outputSize, DWORD(sizeof(info))) : 0;
    std::memcpy(output, &info, *returned);
    return answered;
  }
  HANDLE file = nullptr;
  if (inputSize < sizeof(file)) return E_INVALIDARG;
  std::memcpy(&file, input, sizeof(file));
  std::fprintf(stderr, "Send %lu %s %lu\n", GetFileSize(file, nullptr),
               hex(static_cast<BYTE*>(input) + 8, inputSize - 8).c_str(), outputSize);
  static constexpr unsigned char reply[16] = {1, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0, 0, 0, 0, 0, 0, 0x80};
  *returned = std::min(outputSize, DWORD(sizeof(reply)));
  if (output != nullptr) std::memcpy(output, reply, *returned);
  return result("FLTLIB_SEND");
}
}
