// fltlib.dll is loaded at its first call, from System32 alone: a DLL of that name beside the
// executable is never run. The other DLLs that it imports are among those that Windows itself
// always takes from there. For linkers without /DEPENDENTLOADFLAG.

#include <windows.h>
// after <windows.h>:
#include <delayimp.h>

namespace {

FARPROC WINAPI lookInSystem32(unsigned event, PDelayLoadInfo) {
  if (event == dliNotePreLoadLibrary) SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
  return nullptr;
}

}  // namespace

extern "C" {
PfnDliHook __pfnDliNotifyHook2 = lookInSystem32;
}
