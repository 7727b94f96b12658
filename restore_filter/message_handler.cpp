#include "restore_filter/message_handler.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <system_error>

#include "platform/posix/mount_table.h"
#include "restore_filter/descriptor_limit.h"
#include "restore_filter/log.h"

namespace {

constexpr int mostReads = 64;  // a larger n counts as this
// A start is refused unless this many descriptors are free for other uses.
constexpr int reservedDescriptors = 14;

const HRESULT busy = HRESULT_FROM_WIN32(ERROR_BUSY);

// Opens the file that the sender's handle stands for.
HRESULT takeFile(pid_t sender, std::uint64_t handle, descriptor& path) {
  if (handle > INT_MAX) return E_INVALIDARG;
  const std::string link = "/proc/" + std::to_string(sender) + "/fd/" + std::to_string(handle);
  path = descriptor(open(link.c_str(), O_PATH | O_CLOEXEC));
  if (path.isOpen()) return S_OK;
  return errno == ENOENT ? E_INVALIDARG : hostFailure("open", link);
}

}  // namespace

message_handler::~message_handler() {
  for (const auto& each : jobs) {
    if (each.second.work) each.second.work->stop();
  }
}

HRESULT message_handler::handle(pid_t sender, dev_t device, const void* message, std::size_t size,
                                ProgressInfo& reply, std::size_t& replySize) {
  static constexpr const char* names[] = {"ping", "start", "stop", "progress query"};
  replySize = 0;
  ControlMessage received;
  if (size != sizeof(received)) return E_INVALIDARG;
  std::memcpy(&received, message, sizeof(received));
  const auto operation = received.request.operation;
  if (operation > ControlOperation::QueryProgress) return E_INVALIDARG;
  target local;
  const HRESULT result = answer(received, sender, device, local, reply);
  if (result == S_OK && operation == ControlOperation::QueryProgress) replySize = sizeof(reply);
  char code[11];
  std::snprintf(code, sizeof(code), "0x%08x", static_cast<unsigned>(result));
  if (isLogging) {
    const std::string path = local.path.isOpen() ? pathOf(local.path) : "(no open file)";
    logLine(names[static_cast<int>(operation)], path, code);
  }
  return result;
}

HRESULT message_handler::answer(const ControlMessage& message, pid_t sender, dev_t device,
                                target& local, ProgressInfo& reply) {
  const ControlRequest& request = message.request;
  HRESULT result = takeFile(sender, message.fileHandle, local.path);
  if (result == S_OK) result = openRegularFile(local.path, O_RDONLY, local.file);
  if (result != S_OK) return result;
  const auto volume = findMountOf(procPathOf(local.file.get()).c_str());
  // A mount that is not in the table belongs to another mount name space, or is outside a chroot.
  if (!volume && errno != ENOENT) return hostFailure("find the mount of", local.file);
  if (!volume || volume->device != device) return E_INVALIDARG;
  if (request.operation == ControlOperation::Ping) return S_OK;

  forgetEnded();
  result = keyOf(local.file, local.key);
  if (result != S_OK) return result;
  const bool isStop = request.operation == ControlOperation::StopAggressiveRestore;
  const auto known = jobs.find(local.key);
  if (isStop && known != jobs.end() && known->second.work) {  // its tag may be gone
    known->second.work->stop();
    return S_OK;
  }
  result = readTagOf(local.file, local.backingPath);
  if (result == S_OK && isStop) jobs.erase(local.key);
  if (result != S_OK || isStop) return result;
  if (request.operation == ControlOperation::StartAggressiveRestore) {
    return start(local, request.strategy);
  }
  return queryProgress(local, reply);
}

HRESULT message_handler::keyOf(const descriptor& file, file_key& key) {
  struct statx status {};
  if (statx(file.get(), "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &status) != 0) {
    return hostFailure("statx", file);
  }
  key = {makedev(status.stx_dev_major, status.stx_dev_minor),
         {status.stx_ino, static_cast<std::uint64_t>(status.stx_btime.tv_sec),
          status.stx_btime.tv_nsec}};
  return S_OK;
}

HRESULT message_handler::find(const target& local, state& found) const {
  struct stat status {};
  if (fstat(local.file.get(), &status) != 0) return hostFailure("fstat", local.file);
  const auto size = static_cast<std::uint64_t>(status.st_size);
  HRESULT result = S_OK;
  if (size > 0) result = found.record.read(local.file);
  // It has content of unknown origin.
  if (result == HRESULT_FROM_WIN32(ERROR_NOT_FOUND)) return HRESULT_FROM_WIN32(ERROR_FILE_EXISTS);
  const std::uint64_t restored = found.record.restored();
  found.progress = {restored, restored};
  if (result != S_OK || found.record.isWhole()) return result;

  descriptor backing;
  result = backingFolders.openFile(local.backingPath, backing);
  if (result == S_OK) result = keyOf(backing, found.backingKey);
  if (result != S_OK) return result;
  if (found.backingKey == local.key) return E_INVALIDARG;  // it would be restored from itself
  if (fstat(backing.get(), &status) != 0) return hostFailure("fstat", backing);
  const auto total = static_cast<std::uint64_t>(status.st_size);
  if (size < restored || total < size) return HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
  found.progress = {1, 1};  // for an empty file: 0 of 0 would be taken for no answer
  if (total == 0) return S_OK;
  found.progress = {std::min(restored, total - 1), total};
  found.backing = std::move(backing);
  return S_OK;
}

HRESULT message_handler::start(const target& local, const RestoreStrategy& how) {
  if (how.kind != RestoreStrategyKind::simple || how.concurrentReads < 1) return E_INVALIDARG;
  const int reads = std::min(how.concurrentReads, mostReads);
  const job earlier = jobs.contains(local.key) ? jobs[local.key] : job{};
  const bool isSamePath = earlier.backingPath == local.backingPath;
  if (earlier.work && (earlier.work->isRunning() || !isSamePath)) return busy;

  state found{progress_record(local.key.second, local.backingPath)};
  HRESULT result = find(local, found);
  if (result != S_OK) return result;
  const bool isWhole = !found.backing.isOpen();
  if (earlier.work) {  // stopped, but its last sync may be under way
    const bool isSame = isWhole || earlier.backingKey == found.backingKey;
    if (isSame && earlier.work->wake(reads)) return S_OK;
    if (!earlier.work->hasEnded()) return busy;
    jobs.erase(local.key);
    return start(local, how);  // it ended a moment ago: its record has changed
  }
  if (isWhole) {
    jobs.erase(local.key);
    return S_OK;
  }
  if (!leavesFree(found.backing, reservedDescriptors)) {
    return HRESULT_FROM_WIN32(ERROR_TOO_MANY_OPEN_FILES);
  }
  descriptor writable;
  result = openRegularFile(local.path, O_RDWR, writable);
  if (result == S_OK) result = found.record.open(writable);
  if (result != S_OK) return result;
  auto work = std::make_shared<restoration>(std::move(writable), std::move(found.backing),
                                            std::move(found.record));
  jobs[local.key] = {work, local.backingPath, found.backingKey, S_OK};
  try {
    work->start(reads);
  } catch (const std::system_error&) {  // no more threads
    jobs.erase(local.key);
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

HRESULT message_handler::queryProgress(const target& local, ProgressInfo& progress) const {
  const auto known = jobs.find(local.key);
  if (known != jobs.end()) {
    const job& its = known->second;
    return its.work ? its.work->progress(progress) : its.failed;
  }
  state found{progress_record(local.key.second, local.backingPath)};
  const HRESULT result = find(local, found);
  progress = found.progress;
  return result;
}

void message_handler::forgetEnded() noexcept {
  for (auto each = jobs.begin(); each != jobs.end();) {
    job& known = each->second;
    if (known.work && known.work->hasEnded()) {
      known.failed = known.work->failure();
      known.work.reset();
    }
    each = known.work || known.failed != S_OK ? std::next(each) : jobs.erase(each);
  }
}
