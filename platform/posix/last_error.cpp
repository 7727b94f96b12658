#include "platform/posix/last_error.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace {

thread_local DWORD lastError = 0;

}  // namespace

DWORD GetLastError() { return lastError; }

void SetLastError(DWORD code) { lastError = code; }

// The text of the first errno value that has this code.
DWORD FormatMessageW(DWORD, LPCVOID, DWORD code, DWORD, LPWSTR text, DWORD size, void*) {
  int error = 1;
  while (error < EHWPOISON && windowsErrorFor(error) != code) ++error;
  const std::string_view found(std::strerror(error));
  const bool isKnown = windowsErrorFor(error) == code && code != ERROR_GEN_FAILURE;
  if (!isKnown || found.size() >= size) return 0;
  *std::copy(found.begin(), found.end(), text) = L'\0';
  return static_cast<DWORD>(found.size());
}
