#pragma once

// The part of <fltuser.h> that the program uses: the Filter Manager's user-mode library, with the
// values and layouts of Windows.

#include <windows.h>

#include <cstddef>

enum INSTANCE_INFORMATION_CLASS : ULONG { InstanceAggregateStandardInformation = 3 };
enum FLT_FILESYSTEM_TYPE : ULONG {};

constexpr ULONG FLTFL_IASI_IS_MINIFILTER = 1;
constexpr ULONG FLTFL_IASI_IS_LEGACYFILTER = 2;
constexpr ULONG FLTFL_IASIM_DETACHED_VOLUME = 1;
constexpr ULONG FLTFL_IASIL_DETACHED_VOLUME = 1;
constexpr HRESULT ERROR_FLT_FILTER_NOT_FOUND = static_cast<HRESULT>(0x801F0013);

/// One instance. Its texts follow in the buffer, in UTF-16, at offsets from its start; lengths are
/// in bytes.
struct INSTANCE_AGGREGATE_STANDARD_INFORMATION {
  ULONG NextEntryOffset;
  ULONG Flags;
  union {
    struct {
      ULONG Flags;
      ULONG FrameID;
      FLT_FILESYSTEM_TYPE VolumeFileSystemType;
      USHORT InstanceNameLength;
      USHORT InstanceNameBufferOffset;
      USHORT AltitudeLength;
      USHORT AltitudeBufferOffset;
      USHORT VolumeNameLength;
      USHORT VolumeNameBufferOffset;
      USHORT FilterNameLength;
      USHORT FilterNameBufferOffset;
      ULONG SupportedFeatures;
    } MiniFilter;
    struct {
      ULONG Flags;
      USHORT AltitudeLength;
      USHORT AltitudeBufferOffset;
      USHORT VolumeNameLength;
      USHORT VolumeNameBufferOffset;
      USHORT FilterNameLength;
      USHORT FilterNameBufferOffset;
      ULONG SupportedFeatures;
    } LegacyFilter;
  } Type;
};
static_assert(sizeof(INSTANCE_AGGREGATE_STANDARD_INFORMATION) == 40);

extern "C" {

HRESULT WINAPI FilterInstanceFindFirst(LPCWSTR filterName, INSTANCE_INFORMATION_CLASS what,
                                       LPVOID buffer, DWORD size, LPDWORD returned,
                                       LPHANDLE search);
HRESULT WINAPI FilterInstanceFindNext(HANDLE search, INSTANCE_INFORMATION_CLASS what, LPVOID buffer,
                                      DWORD size, LPDWORD returned);
HRESULT WINAPI FilterInstanceFindClose(HANDLE search);
HRESULT WINAPI FilterConnectCommunicationPort(LPCWSTR portName, DWORD options, LPCVOID context,
                                              WORD contextSize, LPSECURITY_ATTRIBUTES security,
                                              HANDLE* port);
HRESULT WINAPI FilterSendMessage(HANDLE port, LPVOID input, DWORD inputSize, LPVOID output,
                                 DWORD outputSize, LPDWORD returned);
}
