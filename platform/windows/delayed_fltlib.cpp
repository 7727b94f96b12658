// Loads fltlib.dll when one of its functions is first called, and only from System32: a DLL of that
// name beside the executable never runs. The other imported DLLs are on Windows' KnownDLLs list, so
// Windows loads them only from System32 anyway. Used with linkers that lack /DEPENDENTLOADFLAG.

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
