// The fltlib.dll that the shipped Windows executable meets in its test under Wine: it
// answers as the environment says, and writes a line for each call to the file FLTLIB_LOG.

#include <windows.h>
// after <windows.h>:
#include <fltuser.h>

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

// One instance, on the volume FLTLIB_DEVICE, in a record of FLTLIB_SIZE bytes.
HRESULT answer(BYTE* buffer, DWORD size, bool isFirst) {
  if (!isFirst) return HRESULT_FROM_WIN32(ERROR_NO_MORE_ITEMS);
  if (result("FLTLIB_FIND") != S_OK) return result("FLTLIB_FIND");
  const auto needed = std::strtoul(setting("FLTLIB_SIZE").c_str(), nullptr, 10);
  if (size < needed) return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
  const std::string device = setting("FLTLIB_DEVICE");
  INSTANCE_AGGREGATE_STANDARD_INFORMATION record{};
  record.Flags = 1;
  record.Type.MiniFilter.VolumeNameLength = USHORT(2 * device.size());
  record.Type.MiniFilter.VolumeNameBufferOffset = USHORT(needed - 2 * device.size());
  for (std::size_t i = 0; i < device.size(); ++i) {
    buffer[needed - 2 * device.size() + 2 * i] = BYTE(device[i]);
    buffer[needed - 2 * device.size() + 2 * i + 1] = 0;
  }
  std::memcpy(buffer, &record, sizeof(record));
  return S_OK;
}

}  // namespace

extern "C" {

HRESULT WINAPI FilterInstanceFindFirst(LPCWSTR filter, INSTANCE_INFORMATION_CLASS what,
                                       LPVOID buffer, DWORD size, LPDWORD, LPHANDLE) {
  log("FindFirst %ls %d %lu\n", filter, what, size);
  return answer(static_cast<BYTE*>(buffer), size, true);
}

HRESULT WINAPI FilterInstanceFindNext(HANDLE, INSTANCE_INFORMATION_CLASS, LPVOID, DWORD size,
                                      LPDWORD) {
  log("FindNext %lu\n", size);
  return answer(nullptr, size, false);
}

HRESULT WINAPI FilterInstanceFindClose(HANDLE) {
  log("FindClose\n");
  return S_OK;
}

HRESULT WINAPI FilterConnectCommunicationPort(LPCWSTR name, DWORD options, LPCVOID context,
                                              WORD size, LPSECURITY_ATTRIBUTES, HANDLE* port) {
  log("Connect %ls %lu %s\n", name, options, hex(context, size).c_str());
  *port = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  return result("FLTLIB_CONNECT");
}

HRESULT WINAPI FilterSendMessage(HANDLE port, LPVOID input, DWORD inputSize, LPVOID output,
                                 DWORD outputSize, LPDWORD returned) {
  HANDLE file = nullptr;
  std::memcpy(&file, input, sizeof(file));
  log("Send %lu %s %lu\n", GetFileSize(file, nullptr),
      hex(static_cast<BYTE*>(input) + 8, inputSize - 8).c_str(), outputSize);
  if (port == INVALID_HANDLE_VALUE) return HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);
  const std::string reply = boost::algorithm::unhex(setting("FLTLIB_REPLY"));
  *returned = DWORD(reply.size());
  if (output != nullptr) std::memcpy(output, reply.data(), reply.size());
  return result("FLTLIB_SEND");
}
}
