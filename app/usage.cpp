#include "app/usage.h"

#include <iostream>

void printUsage() {
  static constexpr const wchar_t* lines[] = {
      L"zan_restore file rp [ 'simple' n ]",
      L"",
      L"Where",
      L"",
      L"\tfile is the path to a local file that will be recovered",
      L"\trp is the path to the backing data file: \\\\server\\<path> or c:\\dir\\foo.txt",
      L"\tsimple indicates an aggressive restore with n concurrent backing reads",
      L"",
      L"zan_restore [ --startAggressiveRestore n | --stopAggressiveRestore | --progress ] file",
      L"",
      L"\tReport progress of or start or stop aggressive restoration of a filtered file",
      L"\tn = number of concurrent backing file reads",
      L"",
  };
  for (const wchar_t* line : lines) std::wcout << line << std::endl;
}
