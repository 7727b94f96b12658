// What the instance lookup costs a QueryDosDeviceW call, for V volumes and I
// instances of a scripted Filter Manager, beside a bare loop of the same calls.
// Each call enters the kernel once, which is the least that the real one costs.

#include <windows.h>
// after <windows.h>:
#include <fltuser.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "fsfilter/filter_instances.h"

namespace {

std::vector<std::wstring> volumes;                  // "\\?\Volume{...}\"
std::vector<std::wstring> deviceNames;              // of each volume
std::vector<std::vector<unsigned char>> instances;  // records
std::size_t nextVolume = 0;
std::size_t nextInstance = 0;
long queries = 0;

void copy(const std::wstring& text, LPWSTR buffer) {
  std::wmemcpy(buffer, text.c_str(), text.size() + 1);
}

std::vector<unsigned char> recordFor(const std::wstring& device) {
  INSTANCE_AGGREGATE_STANDARD_INFORMATION header{};
  header.Flags = FLTFL_IASI_IS_MINIFILTER;
  header.Type.MiniFilter.VolumeNameLength = static_cast<USHORT>(2 * device.size());
  header.Type.MiniFilter.VolumeNameBufferOffset = sizeof(header);
  std::vector<unsigned char> record(sizeof(header));
  std::memcpy(record.data(), &header, sizeof(header));
  for (const wchar_t unit : device) record.insert(record.end(), {static_cast<BYTE>(unit), 0});
  return record;
}

HRESULT answerInstance(LPVOID buffer) {
  getppid();
  if (nextInstance == instances.size()) return HRESULT_FROM_WIN32(ERROR_NO_MORE_ITEMS);
  const std::vector<unsigned char>& record = instances[nextInstance++];
  std::memcpy(buffer, record.data(), record.size());
  return S_OK;
}

// The same calls as the lookup makes, and nothing made of their answers.
void callBarely() {
  static unsigned char record[512];
  static wchar_t volume[MAX_PATH];
  static wchar_t names[MAX_PATH];
  HANDLE search = INVALID_HANDLE_VALUE;
  DWORD returned = 0;
  HRESULT found =
      FilterInstanceFindFirst(L"zan_restore_filter", InstanceAggregateStandardInformation, record,
                              sizeof(record), &returned, &search);
  for (std::size_t instance = 0; found == S_OK; ++instance) {
    const HANDLE list = FindFirstVolumeW(volume, MAX_PATH);
    for (std::size_t i = 0;; ++i) {
      QueryDosDeviceW(volume + 4, names, MAX_PATH);
      if (i == instance % volumes.size() || !FindNextVolumeW(list, volume, MAX_PATH)) break;
    }
    FindVolumeClose(list);
    found = FilterInstanceFindNext(search, InstanceAggregateStandardInformation, record,
                                   sizeof(record), &returned);
  }
  FilterInstanceFindClose(search);
}

// Nanoseconds a query, the best of several runs.
template <typename Lookup>
double costOf(Lookup lookup) {
  double best = 1e9;
  for (int i = 0; i < 7; ++i) {
    long repeats = 0;
    queries = 0;
    const auto start = std::chrono::steady_clock::now();
    std::chrono::duration<double, std::nano> elapsed{};
    do {
      nextInstance = 0;
      lookup();
      ++repeats;
      elapsed = std::chrono::steady_clock::now() - start;
    } while (elapsed.count() < 2e7);
    best = std::min(best, elapsed.count() / static_cast<double>(queries));
  }
  return best;
}

}  // namespace

extern "C" {

DWORD WINAPI GetLastError() { return ERROR_NO_MORE_FILES; }
void WINAPI OutputDebugStringW(LPCWSTR) {}

HANDLE WINAPI FindFirstVolumeW(LPWSTR name, DWORD size) {
  nextVolume = 0;
  return FindNextVolumeW(nullptr, name, size) ? nullptr : INVALID_HANDLE_VALUE;
}
BOOL WINAPI FindNextVolumeW(HANDLE, LPWSTR name, DWORD) {
  getppid();
  if (nextVolume == volumes.size()) return FALSE;
  copy(volumes[nextVolume++], name);
  return TRUE;
}
BOOL WINAPI FindVolumeClose(HANDLE) {
  getppid();
  return TRUE;
}

// Finds the volume by its number, as fast as any system could.
DWORD WINAPI QueryDosDeviceW(LPCWSTR name, LPWSTR devices, DWORD) {
  getppid();
  ++queries;
  std::size_t number = 0;
  for (const wchar_t* digit = name + 31; *digit != L'}'; ++digit) {
    number = 10 * number + static_cast<std::size_t>(*digit - L'0');
  }
  copy(deviceNames[number], devices);
  return 1;
}

HRESULT WINAPI FilterInstanceFindFirst(LPCWSTR, INSTANCE_INFORMATION_CLASS, LPVOID buffer, DWORD,
                                       LPDWORD, LPHANDLE) {
  return answerInstance(buffer);
}
HRESULT WINAPI FilterInstanceFindNext(HANDLE, INSTANCE_INFORMATION_CLASS, LPVOID buffer, DWORD,
                                      LPDWORD) {
  return answerInstance(buffer);
}
HRESULT WINAPI FilterInstanceFindClose(HANDLE) { return S_OK; }
}

int main() {
  std::printf("%8s %10s %12s %12s %7s\n", "volumes", "instances", "ns a query", "bare", "ratio");
  for (const std::size_t volumeCount : {1u, 10u, 100u, 1000u}) {
    volumes.clear();
    deviceNames.clear();
    for (std::size_t i = 0; i < volumeCount; ++i) {
      wchar_t name[MAX_PATH];
      std::swprintf(name, MAX_PATH, L"\\\\?\\Volume{00000000-0000-0000-0000-%012zu}\\", i);
      volumes.emplace_back(name);
      deviceNames.push_back(L"\\Device\\HarddiskVolume" + std::to_wstring(i));
    }
    for (const std::size_t instanceCount : {1u, 10u, 100u, 1000u}) {
      instances.clear();
      for (std::size_t i = 0; i < instanceCount; ++i) {
        instances.push_back(recordFor(deviceNames[i % deviceNames.size()]));
      }
      const double bare = costOf(callBarely);
      const double lookup =
          costOf([] { zan::fsfilter::findFilterInstances(L"zan_restore_filter"); });
      std::printf("%8zu %10zu %12.1f %12.1f %7.2f\n", volumeCount, instanceCount, lookup, bare,
                  lookup / bare);
    }
  }
}
