#include "restore_filter/restoration.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <future>
#include <semaphore>
#include <thread>

#include "restore_filter/failure.h"

namespace {

constexpr std::uint64_t chunkSize = 512 * 1024;  // bytes of one read

// Each restoration has one read of its own and takes more from this pool. All buffers of the pool
// together take 64 MiB. Each file takes 1 MiB more: one chunk is read while another is written.
std::counting_semaphore<> sharedReads(128);
struct read_share {
  explicit read_share(int wanted) {
    while (count < wanted && sharedReads.try_acquire()) ++count;
  }
  ~read_share() { sharedReads.release(count - 1); }
  int count = 1;
};

struct chunk {
  std::uint64_t offset;
  std::size_t size;
  std::unique_ptr<char[]> bytes = std::make_unique_for_overwrite<char[]>(chunkSize);
};

// A file that has changed: it has another length than before.
[[noreturn]] void throwChanged() { throw failureOf(ERROR_FILE_INVALID); }

chunk readChunk(const descriptor& file, std::uint64_t offset, std::size_t size) {
  chunk read{offset, size};
  for (std::size_t done = 0; done < size;) {
    const ssize_t count =
        pread(file.get(), &read.bytes[done], size - done, static_cast<off_t>(offset + done));
    if (count < 0) throwFailure("pread", file);
    if (count == 0) throwChanged();
    done += static_cast<std::size_t>(count);
  }
  return read;
}

}  // namespace

void restoration::start(restoration_files with, int n) {
  files = std::move(with);
  hasBegun = hasBegun && position > 0;
  reads = n;
  now = state::running;
  if (total() == 0) {
    run();
    if (result != S_OK) throw failure{result};
    return;
  }
  try {
    std::thread([self = shared_from_this()] { self->run(); }).detach();
  } catch (const std::exception&) {
    now = state::ended;
    throw failure{E_OUTOFMEMORY};
  }
}

void restoration::stop() {
  const bool wasRunning = change(state::running, state::stopped);
  const std::lock_guard lock(writing);  // waits for a write that is under way
  if (!wasRunning) return;
  stoppedStamp = {};
  try {
    stoppedStamp = stampOf(files->local);
  } catch (...) {
    // Without a stamp, the next start begins again.
  }
}

bool restoration::wake(int n) {
  reads = n;
  return change(state::stopped, state::running);
}

// A start after a stop may come at any time before the end. The thread then continues.
void restoration::run() {
  for (;;) {
    result = restore();
    if (result != S_OK || isWhole()) {
      now = state::ended;
      return;
    }
    if (change(state::stopped, state::ended)) return;
  }
}

// Restores until the file is whole, something fails, or it is stopped.
HRESULT restoration::restore() try {
  // ntfs-3g would save the record of a pass that continues under a name that another file may have.
  if (!hasBegun) files->record.saveBegun(files->local);
  hasBegun = true;
  if (position == 0 && !empty()) return S_OK;
  while (position < total() && isRunning()) fill();
  // After a failed sync nobody knows which bytes were lost. So even a stopped pass syncs.
  syncData(files->local);
  if (position < total()) return S_OK;
  if (stampOf(files->local).size != position || stampOf(files->backing) != backingStamp) {
    throwChanged();
  }
  files->record.saveWhole(files->local, position);
  return S_OK;
} catch (const failure& why) {
  return why.code;
} catch (const std::exception&) {
  return E_OUTOFMEMORY;
}

// Reads and writes until the end, a stop, or a start with another n.
void restoration::fill() {
  const int wanted = reads;
  const read_share share(wanted);
  std::uint64_t next = position;
  std::deque<std::future<chunk>> begun;
  const auto readAhead = [&] {
    while (next < total() && std::ssize(begun) < share.count) {
      const std::size_t size = std::min(chunkSize, total() - next);
      // Reads in a new thread. If none can be started, reads in this one when get() is called.
      begun.push_back(std::async([=, this] { return readChunk(files->backing, next, size); }));
      next += size;
    }
  };
  readAhead();
  while (!begun.empty() && isRunning() && reads == wanted) {
    const chunk read = begun.front().get();
    begun.pop_front();
    readAhead();                         // while this one is written
    if (read.offset != position) break;  // one before it was not written, or not all of it
    if (!write(read.bytes.get(), read.size)) break;
    // Sends the chunk to the disk already: a sync then has little to wait for.
    sync_file_range(files->local.get(), static_cast<off_t>(read.offset),
                    static_cast<off_t>(read.size), SYNC_FILE_RANGE_WRITE);
  }
}

// Drops what an earlier pass has left. False if stopped.
bool restoration::empty() {
  const std::lock_guard lock(writing);
  if (!isRunning()) return false;
  if (ftruncate(files->local.get(), 0) != 0) throwFailure("ftruncate", files->local);
  return true;
}

// Writes at the position, perhaps not all. False if stopped. A chunk of zeros at the file's end is
// not written: the file only becomes longer, by a hole.
bool restoration::write(const char* bytes, std::size_t size) {
  const std::lock_guard lock(writing);
  if (!isRunning()) return false;
  const int local = files->local.get();
  const auto offset = static_cast<off_t>(position);
  struct stat status {};
  if (fstat(local, &status) != 0) throwFailure("fstat", files->local);
  if (isDeleted(status, files->local)) throw failureOf(ERROR_FILE_NOT_FOUND);
  if (status.st_size < offset) throwChanged();
  const bool isHole =
      status.st_size == offset && bytes[0] == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0;
  auto count = static_cast<ssize_t>(size);
  if (isHole) {
    if (ftruncate(local, offset + count) != 0) throwFailure("ftruncate", files->local);
  } else {
    count = pwrite(local, bytes, size, offset);
    if (count < 0) throwFailure("pwrite", files->local);
  }
  position += static_cast<std::uint64_t>(count);
  return true;
}
