#include "restore_filter/failure.h"

#include <cerrno>
#include <cstring>
#include <iostream>

#include "platform/linux/error_code.h"
#include "restore_filter/host_files.h"

void logLine(const std::string& what, const std::string& path, const std::string& end) {
  // In one write: several threads log.
  if (isLogging) std::cerr << what + ' ' + path + ": " + end + '\n';
}

void throwFailure(const char* call, const std::string& path) {
  const int error = errno;
  logLine(call, path, std::strerror(error));
  throw failureOf(windowsErrorFor(error));
}

void throwFailure(const char* call, const descriptor& file) {
  const int error = errno;
  const std::string path = isLogging ? pathOf(file) : "";
  errno = error;
  throwFailure(call, path);
}
