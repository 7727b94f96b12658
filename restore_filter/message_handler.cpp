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

// A thread and a buffer each; a larger n is served as this many.
constexpr int mostReads = 64;
// Descriptors that restorations leave to connections and to the handling of a message.
constexpr int reservedDescriptors = 12;

// Takes an own reference to the file that the sender's handle stands for.
HRESULT takeFile(pid_t sender, std::uint64_t handle, descriptor& path) {
  if (handle > INT_MAX) return E_INVALIDARG;
  const std::string link = "/proc/" + std::to_string(sender) + "/fd/" + std::to_string(handle);
  path = descriptor(open(link.c_str(), O_PATH | O_CLOEXEC));
  if (!path.isOpen()) {
    return errno == ENOENT ? E_INVALIDARG : hostFailure();
  }
  return S_OK;
}

// How much the local file has of what the backing file has now.
HRESULT sizesOf(const descriptor& local, const descriptor& backing, ProgressInfo& sizes) {
  struct stat localStatus {};
  struct stat backingStatus {};
  if (fstat(local.get(), &localStatus) != 0 || fstat(backing.get(), &backingStatus) != 0) {
    return hostFailure();
  }
  sizes = {static_cast<std::uint64_t>(localStatus.st_size),
           static_cast<std::uint64_t>(backingStatus.st_size)};
  return S_OK;
}

}  // namespace

message_handler::~message_handler() {
  for (const auto& each : restorations) each.second->stop();
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
  const auto volume = findMountOf(procPathOf(file.get()).c_str());
  // A mount that isn't in the table is one of another mount name space.
  if (!volume && errno != ENOENT) return hostFailure();
  if (!volume || volume->device != device) return E_INVALIDARG;
  if (request.operation == ControlOperation::Ping) return S_OK;

  file_key key;
  result = keyOf(file.get(), key);
  if (result != S_OK) return result;
  forgetEnded();
  if (request.operation == ControlOperation::StopAggressiveRestore) return stop(key, file);

  std::string backingPath;
  result = readTagOf(file.get(), backingPath);
  if (result != S_OK) return result;

  if (request.operation == ControlOperation::StartAggressiveRestore) {
    result = openRegularFile(path, O_RDWR, file);
    return result != S_OK ? result : start(key, std::move(file), backingPath, request.strategy);
  }
  result = queryProgress(key, file, backingPath, reply);
  if (result == S_OK) replySize = sizeof(reply);
  return result;
}

HRESULT message_handler::keyOf(int file, file_key& key) {
  struct statx status {};
  if (statx(file, "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &status) != 0) return hostFailure();
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

  const auto running = restorations.find(key);
  std::shared_ptr<restoration> earlier;
  if (running != restorations.end()) {
    earlier = running->second;
    if (!earlier->isStopped())
      return earlier->isFinishing() ? S_OK : HRESULT_FROM_WIN32(ERROR_BUSY);
  }
  const auto failure = failures.find(key);
  const restore_failure failed = failure == failures.end() ? restore_failure{} : failure->second;
  const std::uint64_t restored = restoredSize(file.get(), backing.get());
  const bool isWhole = sizes.progress == sizes.total && restored == sizes.total;
  if (!isWhole || earlier || failed.lostFrom < sizes.progress) {
    auto next = std::make_shared<restoration>(std::move(file), std::move(backing), restored,
                                              std::move(earlier), failed);
    const auto [slot, isNew] = restorations.try_emplace(key);
    try {
      next->start(std::min(how.concurrentReads, mostReads));
    } catch (const std::system_error&) {  // no more threads
      if (isNew) restorations.erase(slot);
      return E_OUTOFMEMORY;
    }
    slot->second = std::move(next);
  }
  if (failure != failures.end()) failures.erase(failure);
  return S_OK;
}

HRESULT message_handler::stop(file_key key, const descriptor& file) {
  const auto running = restorations.find(key);
  if (running != restorations.end()) {  // whatever became of its tag
    running->second->stop();
    return S_OK;
  }
  std::string unused;
  const HRESULT tagged = readTagOf(file.get(), unused);
  if (tagged != S_OK) return tagged;
  const auto failure = failures.find(key);
  const bool isForgotten =
      failure != failures.end() && failure->second.lostFrom == restore_failure::nowhere;
  if (isForgotten) failures.erase(failure);
  return S_OK;
}

// A restoration that failed answers its failure, so that nobody waits for it.
HRESULT message_handler::queryProgress(file_key key, const descriptor& file,
                                       const std::string& backingPath, ProgressInfo& progress) {
  const auto failure = failures.find(key);
  if (failure != failures.end()) return failure->second.why;
  descriptor backing;
  HRESULT result = backingFolders.openFile(backingPath, backing);
  if (result == S_OK) result = sizesOf(file, backing, progress);
  if (result != S_OK) return result;
  if (progress.progress > progress.total) return HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
  const auto running = restorations.find(key);
  if (running == restorations.end()) {
    progress.progress = restoredSize(file.get(), backing.get());
    // There is nothing to restore, and 0 of 0 would be taken for no answer.
    if (progress.total == 0) progress = {1, 1};
  } else {
    // It is whole when its last bytes are on the disk, and the restoration has ended.
    progress.progress = std::min(running->second->progress(), progress.total - 1);
  }
  return S_OK;
}

void message_handler::forgetEnded() noexcept {
  for (auto each = restorations.begin(); each != restorations.end();) {
    if (!each->second->hasEnded()) {
      ++each;
      continue;
    }
    try {
      const restore_failure& failure = each->second->failure();
      if (failure.why != S_OK) failures[each->first] = failure;
    } catch (const std::bad_alloc&) {
      return;  // another time
    }
    each = restorations.erase(each);
  }
}
