#include "restore_filter/message_handler.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "platform/posix/mount_table.h"
#include "restore_filter/descriptor_limit.h"
#include "restore_filter/log.h"

namespace {

constexpr int mostReads = 64;                 // a larger n counts as this
constexpr std::size_t mostRemembered = 1000;  // restorations that have ended

const HRESULT busy = HRESULT_FROM_WIN32(ERROR_BUSY);

// Opens the file that the sender's handle stands for.
HRESULT takeFile(pid_t sender, std::uint64_t handle, descriptor& path) {
  if (handle > INT_MAX) return E_INVALIDARG;
  const std::string link = "/proc/" + std::to_string(sender) + "/fd/" + std::to_string(handle);
  path = descriptor(open(link.c_str(), O_PATH | O_CLOEXEC));
  if (path.isOpen()) return S_OK;
  return errno == ENOENT ? E_INVALIDARG : loggedFailure("open", link);
}

// The progress of a file that is not whole: below the total.
ProgressInfo unfinished(std::uint64_t restored, std::uint64_t total) {
  return {std::min(restored, std::max(total, 1UL) - 1), std::max(total, 1UL)};
}

}  // namespace

message_handler::~message_handler() {
  for (const auto& each : jobs) each.second->stop();
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
  HRESULT result = takeFile(sender, message.fileHandle, local.path);
  if (result == S_OK) result = openRegularFile(local.path, O_RDONLY, local.file);
  if (result != S_OK) return result;
  const auto volume = findMountOf(procPathOf(local.file.get()).c_str());
  // A mount that is not in the table belongs to another mount name space, or is outside a chroot.
  if (!volume && errno != ENOENT) return loggedFailure("find the mount of", local.file);
  if (!volume || volume->device != device) return E_INVALIDARG;
  result = stampOf(local.file, local.stamp);
  if (result != S_OK) return result;
  switch (message.request.operation) {
    case ControlOperation::StartAggressiveRestore: return start(local, message.request.strategy);
    case ControlOperation::StopAggressiveRestore: return stop(local);
    case ControlOperation::QueryProgress: return queryProgress(local, reply);
    default: return S_OK;  // a ping
  }
}

HRESULT message_handler::start(target& local, const RestoreStrategy& how) {
  HRESULT result = readTag(local.file, local.backingPath);
  if (result != S_OK) return result;
  if (how.kind != RestoreStrategyKind::simple || how.concurrentReads < 1) return E_INVALIDARG;
  const int reads = std::min(how.concurrentReads, mostReads);
  std::shared_ptr<restoration> work = restorationOf(local);
  if (work && !work->hasEnded()) {
    if (work->isRunning()) return busy;
    result = openBacking(local);
    const bool isSame = result == S_OK && work->isPassOver(local.backingPath, local.backingStamp);
    if (isSame && work->wake(reads)) return S_OK;
    if (!work->hasEnded()) return busy;  // it still works for an earlier tag or backing file
  }
  closeEnded();  // one that has just ended still holds its lock

  progress_record record(local.stamp.identity, local.backingPath);
  result = record.read(local.file, local.stamp.size);
  if (result != S_OK || record.isWhole()) return result;
  result = openBacking(local);
  if (result != S_OK) return result;
  if (!leavesFree(local.backing, descriptorsPerStart)) {
    return HRESULT_FROM_WIN32(ERROR_TOO_MANY_OPEN_FILES);
  }
  descriptor writable;
  result = openRegularFile(local.path, O_RDWR, writable);
  if (result != S_OK) return result;
  // Another stand-in, in another network name space, may restore the file.
  if (flock(writable.get(), LOCK_EX | LOCK_NB) != 0) {
    return errno == EWOULDBLOCK ? busy : loggedFailure("flock", writable);
  }
  // The other one may have changed it before. And overlayfs makes it another file now.
  result = stampOf(writable, local.stamp);
  record = progress_record(local.stamp.identity, local.backingPath);
  if (result == S_OK) result = record.read(writable, local.stamp.size);
  if (result == S_OK && !record.isWhole()) result = record.open(writable);
  if (result != S_OK || record.isWhole()) return result;
  if (!work || !work->canContinue(local.backingPath, local.backingStamp, record.number(),
                                  local.stamp.size)) {
    work = std::make_shared<restoration>(local.backingPath, local.backingStamp);
  }
  jobs.insert_or_assign(local.stamp.key(), work);
  return work->start({std::move(writable), std::move(local.backing), std::move(record)}, reads);
}

HRESULT message_handler::stop(target& local) {
  const std::shared_ptr<restoration> work = restorationOf(local);
  if (work && !work->hasEnded()) {  // its tag may be gone
    work->stop();
    return S_OK;
  }
  const HRESULT result = readTag(local.file, local.backingPath);
  if (result == S_OK && work && work->failure() != S_OK) jobs.erase(local.stamp.key());
  return result;
}

HRESULT message_handler::queryProgress(target& local, ProgressInfo& progress) const {
  HRESULT result = readTag(local.file, local.backingPath);
  if (result != S_OK) return result;
  const std::shared_ptr<restoration> work = restorationOf(local);
  if (work && !work->hasEnded()) {
    progress = unfinished(work->restored(), work->total());
    return S_OK;
  }
  if (work && work->failure() != S_OK) return work->failure();
  progress_record record(local.stamp.identity, local.backingPath);
  result = record.read(local.file, local.stamp.size);
  if (result == S_OK && !record.isWhole()) result = openBacking(local);
  const bool isStopped = work && work->canContinue(local.backingPath, local.backingStamp,
                                                   record.number(), local.stamp.size);
  progress = unfinished(isStopped ? work->restored() : 0, local.backingStamp.size);
  if (record.isWhole()) progress.progress = progress.total = std::max(record.number(), 1UL);
  return result;
}

HRESULT message_handler::openBacking(target& local) const {
  HRESULT result = backingFolders.openFile(local.backingPath, local.backing);
  if (result == S_OK) result = stampOf(local.backing, local.backingStamp);
  if (result != S_OK) return result;
  if (local.backingStamp.key() == local.stamp.key()) return E_INVALIDARG;
  std::string pathInTag;
  result = readTag(local.backing, pathInTag);
  if (result == HRESULT_FROM_WIN32(ERROR_NOT_FOUND)) return S_OK;
  if (result != S_OK) return result;
  // It is restored itself, and must be whole.
  progress_record record(local.backingStamp.identity, pathInTag);
  result = record.read(local.backing, local.backingStamp.size);
  const bool isPartial = result == S_OK && !record.isWhole();
  return isPartial || result == HRESULT_FROM_WIN32(ERROR_FILE_EXISTS) ? busy : result;
}

std::shared_ptr<restoration> message_handler::restorationOf(const target& local) const {
  const auto known = jobs.find(local.stamp.key());
  return known == jobs.end() ? nullptr : known->second;
}

void message_handler::closeEnded() {
  std::size_t ended = 0;
  auto oldest = jobs.end();
  for (auto next = jobs.begin(); next != jobs.end();) {
    const auto each = next++;
    restoration& work = *each->second;
    if (!work.hasEnded()) continue;
    work.close();
    if (work.isWhole()) {
      jobs.erase(each);
    } else if (++ended == 1 || work.number() < oldest->second->number()) {
      oldest = each;
    }
  }
  if (ended > mostRemembered) jobs.erase(oldest);
}
