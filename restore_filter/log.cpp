#include "restore_filter/log.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <iostream>

#include "platform/posix/last_error.h"

void logLine(const std::string& what, const std::string& path, const std::string& end) {
  // In one write: several threads log.
  if (isLogging) std::cerr << what + ' ' + path + ": " + end + '\n';
}

HRESULT hostFailure(const char* call, const std::string& path) {
  const HRESULT result = hostFailure();
  logLine(call, path, std::strerror(errno));
  return result;
}

HRESULT hostFailure(const char* call, const descriptor& file) {
  const int error = errno;
  const std::string path = isLogging ? pathOf(file) : "";
  errno = error;
  return hostFailure(call, path);
}

std::string pathOf(const descriptor& file) {
  std::string path(PATH_MAX, '\0');
  const ssize_t length = readlink(procPathOf(file.get()).c_str(), path.data(), path.size());
  path.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  return path;
}
