#include "restore_filter/message_handler.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <exception>
#include <new>

#include "platform/posix/last_error.h"
#include "platform/posix/mount_table.h"
#include "restore_filter/tag_reader.h"

namespace {

// A thread and a buffer each; more reads than this are served as this many.
constexpr int mostReads = 64;
// Descriptors that restorations leave to connections and to the handling of a message.
constexpr int reservedDescriptors = 12;
// Failures kept for those who ask; past this many one is forgotten for another.
constexpr std::size_t mostFailures = 1000;

std::string pathOf(const descriptor& file) { return "/proc/self/fd/" + std::to_string(file.get()); }

// Takes an own reference to the file that the sender's handle stands for.
HRESULT takeFile(pid_t sender, std::uint64_t handle, descriptor& path) {
  if (handle > INT_MAX) return E_INVALIDARG;
  const std::string link = "/proc/" + std::to_string(sender) + "/fd/" + std::to_string(handle);
  path = descriptor(open(link.c_str(), O_PATH | O_CLOEXEC));
  if (!path.isOpen()) {
    return errno == ENOENT ? E_INVALIDARG : HRESULT_FROM_WIN32(windowsErrorFor(errno));
  }
  return S_OK;
}

// How much the local file has of what the backing file has now.
HRESULT sizesOf(const descriptor& local, const descriptor& backing, ProgressInfo& sizes) {
  struct stat localStatus {};
  struct stat backingStatus {};
  if (fstat(local.get(), &localStatus) != 0 || fstat(backing.get(), &backingStatus) != 0) {
    return HRESULT_FROM_WIN32(windowsErrorFor(errno));
  }
  sizes = {static_cast<std::uint64_t>(localStatus.st_size),
           static_cast<std::uint64_t>(backingStatus.st_size)};
  return S_OK;
}

}  // namespace

message_handler::~message_handler() {
  for (const auto& each : restorations) each.second->end();
}

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
  // A mount that isn't in the table is one of another mount name space.
  if (!volume && errno != ENOENT) return HRESULT_FROM_WIN32(windowsErrorFor(errno));
  if (!volume || volume->device != device) return E_INVALIDARG;
  if (request.operation == ControlOperation::Ping) return S_OK;

  file_key key;
  result = keyOf(file.get(), key);
  if (result != S_OK) return result;
  forgetEnded();
  const bool isStop = request.operation == ControlOperation::StopAggressiveRestore;
  const auto restored = restorations.find(key);
  if (isStop && restored != restorations.end()) {  // whatever became of its tag
    restored->second->end();
    if (!restored->second->isRunning()) restorations.erase(restored);
    return S_OK;
  }

  std::string backingPath;
  result = readTagOf(file.get(), backingPath);
  if (result != S_OK) return result;

  switch (request.operation) {
    case ControlOperation::StartAggressiveRestore:
      result = openRegularFile(path, O_RDWR, file);
      return result != S_OK ? result : start(key, std::move(file), backingPath, request.strategy);
    case ControlOperation::StopAggressiveRestore: failures.erase(key); return S_OK;
    default:
      result = queryProgress(key, file, backingPath, reply);
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

  file_key backingKey;
  ProgressInfo sizes{};
  HRESULT result = keyOf(backing.get(), backingKey);
  if (result == S_OK) result = sizesOf(file, backing, sizes);
  if (result != S_OK) return result;
  if (backingKey == key) return E_INVALIDARG;  // it would be restored from itself
  if (!leavesFree(backing, reservedDescriptors)) {
    return HRESULT_FROM_WIN32(ERROR_TOO_MANY_OPEN_FILES);
  }

  const auto found = restorations.find(key);
  if (found != restorations.end()) {
    return found->second->isFinishing() ? S_OK : HRESULT_FROM_WIN32(ERROR_BUSY);
  }
  failures.erase(key);
  if (sizes.progress == sizes.total) return S_OK;  // whole already
  std::shared_ptr<restoration>& slot = restorations[key];
  try {
    slot = std::make_shared<restoration>(std::move(file), std::move(backing));
    slot->start(std::min(how.concurrentReads, mostReads));
    return S_OK;
  } catch (const std::exception&) {  // no more threads, or no memory
    restorations.erase(key);
    return E_OUTOFMEMORY;
  }
}

// A restoration that failed answers its failure, so that nobody waits for it.
HRESULT message_handler::queryProgress(file_key key, const descriptor& file,
                                       const std::string& backingPath, ProgressInfo& progress) {
  const auto failed = failures.find(key);
  if (failed != failures.end()) return failed->second;
  descriptor backing;
  HRESULT result = backingFolders.openFile(backingPath, backing);
  if (result == S_OK) result = sizesOf(file, backing, progress);
  if (result != S_OK) return result;
  if (progress.progress > progress.total) return HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
  // It is whole when its last bytes are on the disk, and the restoration has ended.
  if (restorations.contains(key) && progress.progress >= progress.total && progress.total > 0) {
    progress.progress = progress.total - 1;
  }
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
      if (failure != S_OK) {
        if (failures.size() >= mostFailures) failures.erase(failures.begin());
        failures[each->first] = failure;
      }
    } catch (const std::bad_alloc&) {
      return;  // another time
    }
    each = restorations.erase(each);
  }
}
