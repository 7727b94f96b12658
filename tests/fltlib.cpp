// The fltlib.dll that the shipped Windows executable meets in its test under Wine: it
// answers as the environment says, and writes a line for each call to the file FLTLIB_LOG.

#include <windows.h>
// after <windows.h>:
#include <fltuser.h>

#include <algorithm>
#include <boost/algorithm/hex.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string setting(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

HRESULT result(const char* name) {
  return HRESULT(std::strtoul(setting(name).c_str(), nullptr, 16));
}

std::string hex(const void* bytes, std::size_t size) {
  return boost::algorithm::hex_lower(std::string(static_cast<const char*>(bytes), size));
}

template <typename... Arguments>
void log(const char* format, Arguments... arguments) {
  FILE* const file = std::fopen(setting("FLTLIB_LOG").c_str(), "a");
  std::fprintf(file, format, arguments...);
  std::fclose(file);
}

}  // namespace

extern "C" {

HRESULT WINAPI FilterInstanceFindFirst(LPCWSTR filter, INSTANCE_INFORMATION_CLASS what,
                                       LPVOID buffer, DWORD, LPDWORD, LPHANDLE) {
  log("FindFirst %ls %d\n", filter, what);
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
  log("FindNext\n");
  return HRESULT_FROM_WIN32(ERROR_NO_MORE_ITEMS);
}

HRESULT WINAPI FilterInstanceFindClose(HANDLE) {
  log("FindClose\n");
  return S_OK;
}

HRESULT WINAPI FilterConnectCommunicationPort(LPCWSTR name, DWORD options, LPCVOID context,
                                              WORD size, LPSECURITY_ATTRIBUTES, HANDLE* port) {
  log("Connect %ls %lu %s\n", name, options, hex(context, size).c_str());
  *port = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  return S_OK;
}

HRESULT WINAPI FilterSendMessage(HANDLE, LPVOID input, DWORD inputSize, LPVOID output,
                                 DWORD outputSize, LPDWORD returned) {
  HANDLE file = nullptr;
  if (inputSize < sizeof(file)) return E_INVALIDARG;
  std::memcpy(&file, input, sizeof(file));
  log("Send %lu %s %lu\n", GetFileSize(file, nullptr),
      hex(static_cast<BYTE*>(input) + 8, inputSize - 8).c_str(), outputSize);
  const std::string reply = boost::algorithm::unhex(setting("FLTLIB_REPLY"));
  *returned = std::min(outputSize, DWORD(reply.size()));
  if (output != nullptr) std::memcpy(output, reply.data(), *returned);
  return result("FLTLIB_SEND");
}
}
