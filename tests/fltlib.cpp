// The fltlib.dll that the shipped Windows executables meet in their test under Wine. It answers as
// the environment says, and prints a line for each call to standard error.

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

HRESULT result(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? S_OK : HRESULT(std::strtoul(value, nullptr, 16));
}

std::string hex(const void* bytes, std::size_t size) {
  return boost::algorithm::hex_lower(std::string(static_cast<const char*>(bytes), size));
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
  std::fprintf(stderr, "Connect %ls %lu %s\n", name, options, hex(context, size).c_str());
  *port = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  return S_OK;
}

HRESULT WINAPI FilterSendMessage(HANDLE, LPVOID input, DWORD inputSize, LPVOID output,
                                 DWORD outputSize, LPDWORD returned) {
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
