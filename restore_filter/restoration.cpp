#include "restore_filter/restoration.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <future>
#include <semaphore>
#include <thread>

#include "restore_filter/log.h"

namespace {

const HRESULT changed = HRESULT_FROM_WIN32(ERROR_FILE_INVALID);  // by somebody else
constexpr HRESULT skipped = 1;                                   // it was stopped
constexpr std::uint64_t chunkSize = 512 * 1024;                  // bytes of one read

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
  HRESULT result = S_OK;
};

chunk readChunk(const descriptor& file, std::uint64_t offset, std::size_t size) {
  chunk read{offset, size};
  for (std::size_t done = 0; done < size && read.result == S_OK;) {
    const ssize_t count =
        pread(file.get(), &read.bytes[done], size - done, static_cast<off_t>(offset + done));
    if (count < 0) read.result = loggedFailure("pread", file);
    if (count == 0) read.result = changed;  // it has become shorter
    done += static_cast<std::size_t>(count);
  }
  return read;
}

}  // namespace

std::uint64_t restoration::passNumber() {
  return static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
}

HRESULT restoration::start(restoration_files with, int n) {
  files = std::move(with);
  reads = n;
  now = state::running;
  if (total() == 0) {
    run();
    return failed;
  }
  try {
    std::thread([self = shared_from_this()] { self->run(); }).detach();
    return S_OK;
  } catch (const std::exception&) {
    now = state::ended;
    return E_OUTOFMEMORY;
  }
}

void restoration::stop() {
  change(state::running, state::stopped);
  const std::lock_guard lock(writing);  // waits for a write that is under way
}

bool restoration::wake(int n) {
  reads = n;
  return change(state::stopped, state::running);
}

// A start after a stop may come at any time before the end. The thread then continues.
void restoration::run() {
  for (;;) {
    failed = restore();
    if (failed != S_OK || isWhole()) {
      now = state::ended;
      return;
    }
    if (change(state::stopped, state::ended)) return;
  }
}

// Restores until the file is whole, something fails, or it is stopped.
HRESULT restoration::restore() try {
  HRESULT result = files->record.saveBegun(pass);
  if (result == S_OK && position == 0) result = write(nullptr, 0);  // drops an earlier pass's bytes
  if (result != S_OK) return result == skipped ? S_OK : result;
  while (result == S_OK && position < total() && isRunning()) result = fill();
  // After a failed sync nobody knows which bytes were lost. So even a stopped pass syncs.
  if (result == S_OK || result == skipped) result = syncData(files->local);
  if (result != S_OK || position < total()) return result;
  file_stamp local, backing;
  result = stampOf(files->local, local);
  if (result == S_OK) result = stampOf(files->backing, backing);
  if (result != S_OK) return result;
  if (local.size != position || backing != backingStamp) return changed;
  return files->record.saveWhole(files->local, position);
} catch (const std::exception&) {
  return E_OUTOFMEMORY;
}

// Reads and writes until the end, a stop, or a start with another n.
HRESULT restoration::fill() {
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
    const HRESULT result = read.result == S_OK ? write(read.bytes.get(), read.size) : read.result;
    if (result != S_OK) return result;
    // Sends the chunk to the disk already: a sync then has little to wait for.
    sync_file_range(files->local.get(), static_cast<off_t>(read.offset),
                    static_cast<off_t>(read.size), SYNC_FILE_RANGE_WRITE);
  }
  return S_OK;
}

// Writes at the position unless stopped, perhaps not all; no bytes cut the file there. A chunk of
// zeros at the file's end is not written: the file only becomes longer, by a hole.
HRESULT restoration::write(const char* bytes, std::size_t size) {
  const std::lock_guard lock(writing);
  if (!isRunning()) return skipped;
  const int local = files->local.get();
  const auto offset = static_cast<off_t>(position);
  struct stat status {};
  if (fstat(local, &status) != 0) return loggedFailure("fstat", files->local);
  if (isDeleted(status, files->local)) return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
  if (status.st_size < offset) return changed;
  auto count = static_cast<ssize_t>(size);
  const bool isAtEnd = status.st_size == offset;
  if (size == 0 || (isAtEnd && bytes[0] == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0)) {
    if (ftruncate(local, offset + count) != 0) return loggedFailure("ftruncate", files->local);
  } else {
    count = pwrite(local, bytes, size, offset);
    if (count < 0) return loggedFailure("pwrite", files->local);
  }
  position += static_cast<std::uint64_t>(count);
  return S_OK;
}
