#include "restore_filter/message_handler.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "platform/linux/mount_table.h"
#include "restore_filter/descriptor_limit.h"
#include "restore_filter/failure.h"

namespace {

constexpr int mostReads = 64;  // a larger n counts as this

failure busy() { return failureOf(ERROR_BUSY); }

// Opens the file that the sender's handle stands for.
descriptor takeFile(pid_t sender, std::uint64_t handle) {
  if (handle > INT_MAX) throw failure{E_INVALIDARG};
  const std::string link = "/proc/" + std::to_string(sender) + "/fd/" + std::to_string(handle);
  descriptor path(open(link.c_str(), O_PATH | O_CLOEXEC));
  if (!path.isOpen() && errno == ENOENT) throw failure{E_INVALIDARG};
  if (!path.isOpen()) throwFailure("open", link);
  return path;
}

std::string tagOf(const descriptor& local) {
  const std::optional<std::string> backingPath = readTag(local);
  if (!backingPath) throw failureOf(ERROR_NOT_FOUND);
  return *backingPath;
}

progress_record recordOf(const descriptor& local, const file_stamp& stamp,
                         const std::string& backingPath) {
  progress_record record(stamp.identity, backingPath);
  if (!record.read(local, stamp.size)) throw failureOf(ERROR_FILE_EXISTS);
  return record;
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
  const auto code = static_cast<std::uint32_t>(received.request.operation);
  if (code >= std::size(names)) return E_INVALIDARG;
  target local;
  HRESULT result = S_OK;
  try {
    answer(received, sender, device, local, reply);
    if (received.request.operation == ControlOperation::QueryProgress) replySize = sizeof(reply);
  } catch (const failure& refused) {
    result = refused.code;
  }
  char text[11];
  std::snprintf(text, sizeof(text), "0x%08x", static_cast<unsigned>(result));
  if (isLogging) {
    const std::string path = local.path.isOpen() ? pathOf(local.path) : "(no open file)";
    logLine(names[code], path, text);
  }
  return result;
}

void message_handler::answer(const ControlMessage& message, pid_t sender, dev_t device,
                             target& local, ProgressInfo& reply) {
  local.path = takeFile(sender, message.fileHandle);
  local.file = openRegularFile(local.path, O_RDONLY);
  const auto volume = findMountOf(procPathOf(local.file).c_str());
  // A mount that is not in the table belongs to another mount name space, or is outside a chroot.
  if (!volume && errno != ENOENT) throwFailure("find the mount of", local.file);
  if (!volume || volume->device != device) throw failure{E_INVALIDARG};
  local.stamp = stampOf(local.file);
  switch (message.request.operation) {
    case ControlOperation::StartAggressiveRestore: return start(local, message.request.strategy);
    case ControlOperation::StopAggressiveRestore: return stop(local);
    case ControlOperation::QueryProgress: reply = queryProgress(local); return;
    default: return;  // a ping
  }
}

void message_handler::start(target& local, const RestoreStrategy& how) {
  local.backingPath = tagOf(local.file);
  if (how.kind != RestoreStrategyKind::simple || how.concurrentReads < 1) {
    throw failure{E_INVALIDARG};
  }
  const int reads = std::min(how.concurrentReads, mostReads);
  std::shared_ptr<restoration> work = restorationOf(local);
  if (work && !work->hasEnded()) {
    if (work->isRunning()) throw busy();
    openBacking(local);
    const bool isSame = work->canContinue(local.backingPath, local.backingStamp, local.stamp);
    if (isSame && work->wake(reads)) return;
    if (!work->hasEnded()) throw busy();  // it still works for an earlier tag or version of a file
  }
  closeEnded();  // one that has just ended still holds its lock

  if (recordOf(local.file, local.stamp, local.backingPath).isWhole()) return;
  openBacking(local);
  if (!leavesFree(local.backing, 2 * descriptorsPerMessage)) {
    throw failureOf(ERROR_TOO_MANY_OPEN_FILES);
  }
  descriptor writable = openRegularFile(local.path, O_RDWR);
  // Another stand-in, in another network name space, may restore the file.
  if (flock(writable.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) throw busy();
    throwFailure("flock", writable);
  }
  // The other one may have changed it before. And overlayfs makes it another file now.
  local.stamp = stampOf(writable);
  progress_record record = recordOf(writable, local.stamp, local.backingPath);
  if (record.isWhole()) return;
  record.open(writable);
  if (!work || work->outcome() != S_OK ||
      !work->canContinue(local.backingPath, local.backingStamp, local.stamp)) {
    work = std::make_shared<restoration>(local.backingPath, local.backingStamp);
  }
  jobs.insert_or_assign(local.stamp.key(), work);
  work->start({std::move(writable), std::move(local.backing), std::move(record)}, reads);
}

void message_handler::stop(target& local) {
  const std::shared_ptr<restoration> work = restorationOf(local);
  if (work && !work->hasEnded()) return work->stop();  // its tag may be gone
  local.backingPath = tagOf(local.file);
  if (work && work->outcome() != S_OK) jobs.erase(local.stamp.key());
}

ProgressInfo message_handler::queryProgress(target& local) const {
  local.backingPath = tagOf(local.file);
  const std::shared_ptr<restoration> work = restorationOf(local);
  if (work && !work->hasEnded()) return unfinished(work->restored(), work->total());
  if (work && work->outcome() != S_OK) throw failure{work->outcome()};
  const progress_record record = recordOf(local.file, local.stamp, local.backingPath);
  if (record.isWhole()) {
    const std::uint64_t length = std::max(record.wholeLength(), 1UL);
    return {length, length};
  }
  openBacking(local);
  const bool isStopped =
      work && work->canContinue(local.backingPath, local.backingStamp, local.stamp);
  return unfinished(isStopped ? work->restored() : 0, local.backingStamp.size);
}

void message_handler::openBacking(target& local) const {
  local.backing = backingFolders.openFile(local.backingPath);
  local.backingStamp = stampOf(local.backing);
  if (local.backingStamp.key() == local.stamp.key()) throw failure{E_INVALIDARG};
  const std::optional<std::string> pathInTag = readTag(local.backing);
  if (!pathInTag) return;
  // It is restored itself, and must be whole.
  progress_record record(local.backingStamp.identity, *pathInTag);
  if (!record.read(local.backing, local.backingStamp.size) || !record.isWhole()) throw busy();
}

std::shared_ptr<restoration> message_handler::restorationOf(const target& local) const {
  const auto known = jobs.find(local.stamp.key());
  return known == jobs.end() ? nullptr : known->second;
}

void message_handler::closeEnded() {
  for (auto next = jobs.begin(); next != jobs.end();) {
    const auto each = next++;
    restoration& work = *each->second;
    if (!work.hasEnded()) continue;
    work.close();
    if (work.isWhole()) jobs.erase(each);
  }
}
