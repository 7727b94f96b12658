// Loads fltlib.dll at its first call, only from System32: a DLL of that name beside the executable
// never runs. Windows loads the other imported DLLs, which are known DLLs, only from there anyway.
// Used with linkers that lack /DEPENDENTLOADFLAG.

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
