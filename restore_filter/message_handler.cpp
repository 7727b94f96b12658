#include "restore_filter/message_handler.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <system_error>

#include "platform/posix/last_error.h"
#include "platform/posix/mount_table.h"
#include "restore_filter/tag_reader.h"

namespace {

// A thread and a buffer each; more reads than this are served as this many.
constexpr int mostReads = 64;
// Failures kept for those who ask; past this many one is forgotten for another.
constexpr std::size_t mostFailures = 1000;

std::string pathOf(const descriptor& file) { return "/proc/self/fd/" + std::to_string(file.get()); }

// Takes an own reference to the file that the sender's handle stands for.
HRESULT takeFile(pid_t sender, std::uint64_t handle, descriptor& path) {
  if (handle > INT_MAX) return HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);
  const std::string link = "/proc/" + std::to_string(sender) + "/fd/" + std::to_string(handle);
  path = descriptor(open(link.c_str(), O_PATH | O_CLOEXEC));
  if (!path.isOpen()) {
    return HRESULT_FROM_WIN32(errno == ENOENT ? ERROR_INVALID_HANDLE : windowsErrorFor(errno));
  }
  return S_OK;
}

}  // namespace

HRESULT message_handler::handle(pid_t sender, dev_t device, const void* message, std::size_t size,
                                ProgressInfo& reply, std::size_t& replySize) {
  replySize = 0;
  ControlMessage received;
  if (size != sizeof(received)) return E_INVALIDARG;
  std::memcpy(&received, message, sizeof(received));
  const ControlRequest& request = received.request;
  if (request.operation > ControlOperation::QueryProgress) return E_INVALIDARG;

  descriptor path;
  descriptor file;
  HRESULT result = takeFile(sender, received.fileHandle, path);
  if (result == S_OK) result = openRegularFile(path, O_RDONLY, file);
  if (result != S_OK) return result;
  const auto volume = findVolumeOf(pathOf(file).c_str());
  if (!volume) return HRESULT_FROM_WIN32(windowsErrorFor(errno));
  if (volume->device != device) return E_INVALIDARG;
  if (request.operation == ControlOperation::Ping) return S_OK;

  file_key key;
  result = keyOf(file.get(), key);
  if (result != S_OK) return result;
  forgetEnded();
  const bool isStop = request.operation == ControlOperation::StopAggressiveRestore;
  if (isStop && restorations.erase(key) > 0) return S_OK;  // whatever became of its tag

  std::string backingPath;
  result = readTagOf(file.get(), backingPath);
  if (result != S_OK) return result;

  switch (request.operation) {
    case ControlOperation::StartAggressiveRestore:
      result = openRegularFile(path, O_WRONLY, file);
      return result != S_OK ? result : start(key, std::move(file), backingPath, request.strategy);
    case ControlOperation::StopAggressiveRestore: failures.erase(key); return S_OK;
    default:
      result = queryProgress(key, file.get(), backingPath, reply);
      if (result == S_OK) replySize = sizeof(reply);
      return result;
  }
}

HRESULT message_handler::keyOf(int file, file_key& key) {
  struct statx status {};
  if (statx(file, "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &status) != 0) {
    return HRESULT_FROM_WIN32(windowsErrorFor(errno));
  }
  key = {makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino,
         status.stx_btime.tv_sec, status.stx_btime.tv_nsec};
  return S_OK;
}

HRESULT message_handler::start(file_key key, descriptor file, const std::string& backingPath,
                               const RestoreStrategy& how) {
  if (how.kind != RestoreStrategyKind::simple || how.concurrentReads < 1) return E_INVALIDARG;
  descriptor backing;
  const HRESULT opened = backingFolders.openFile(backingPath, backing);
  if (opened != S_OK) return opened;

  if (restorations.contains(key)) return HRESULT_FROM_WIN32(ERROR_BUSY);
  failures.erase(key);
  const int reads = std::min(how.concurrentReads, mostReads);
  try {
    restorations[key] = std::make_unique<restoration>(std::move(file), std::move(backing), reads);
    return S_OK;
  } catch (const std::system_error&) {  // no more threads
    return E_OUTOFMEMORY;
  }
}

// Counts bytes: how much the local file has of what the backing file has now. A
// restoration that failed answers its failure, so that nobody waits for it.
HRESULT message_handler::queryProgress(file_key key, int file, const std::string& backingPath,
                                       ProgressInfo& progress) {
  const auto failed = failures.find(key);
  if (failed != failures.end()) return failed->second;
  descriptor backing;
  const HRESULT opened = backingFolders.openFile(backingPath, backing);
  if (opened != S_OK) return opened;
  struct stat localStatus {};
  struct stat backingStatus {};
  if (fstat(file, &localStatus) != 0 || fstat(backing.get(), &backingStatus) != 0) {
    return HRESULT_FROM_WIN32(windowsErrorFor(errno));
  }
  progress.progress = static_cast<std::uint64_t>(localStatus.st_size);
  progress.total = static_cast<std::uint64_t>(backingStatus.st_size);
  return S_OK;
}

void message_handler::forgetEnded() noexcept {
  for (auto each = restorations.begin(); each != restorations.end();) {
    if (each->second->isRunning()) {
      ++each;
      continue;
    }
    const HRESULT failure = each->second->failure();
    try {
      if (failures.size() >= mostFailures) failures.erase(failures.begin());
      if (failure != S_OK) failures[each->first] = failure;
    } catch (const std::bad_alloc&) {
      return;  // another time
    }
    each = restorations.erase(each);
  }
}
