#include "restore_filter/log.h"

#include <cerrno>
#include <cstring>
#include <iostream>

#include "platform/posix/last_error.h"
#include "restore_filter/host_files.h"

void logLine(const std::string& what, const std::string& path, const std::string& end) {
  // In one write: several threads log.
  if (isLogging) std::cerr << what + ' ' + path + ": " + end + '\n';
}

HRESULT loggedFailure(const char* call, const std::string& path) {
  const HRESULT result = hostFailure();
  logLine(call, path, std::strerror(errno));
  return result;
}

HRESULT loggedFailure(const char* call, const descriptor& file) {
  const int error = errno;
  const std::string path = isLogging ? pathOf(file) : "";
  errno = error;
  return loggedFailure(call, path);
}
