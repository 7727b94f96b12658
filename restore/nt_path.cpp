#include "restore/nt_path.h"

std::wstring toNtPath(const std::wstring& backingPath) {
  if (backingPath.find(L':') == 1) return L"\\??\\" + backingPath;
  if (backingPath.compare(0, 2, L"\\\\") == 0) return L"\\Device\\Mup" + backingPath.substr(1);
  return backingPath;
}
