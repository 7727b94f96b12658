#include "restore_filter/restoration.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <future>
#include <semaphore>
#include <thread>
#include <utility>
#include <vector>

#include "restore_filter/log.h"

namespace {

constexpr std::uint64_t chunkSize = 512 * 1024;              // bytes of one read
constexpr std::uint64_t saveInterval = 64ULL * 1024 * 1024;  // bytes

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
  std::unique_ptr<char[]> bytes = std::make_unique_for_overwrite<char[]>(chunkSize);
  std::uint64_t offset = 0;
  std::size_t size = 0;
  std::future<HRESULT> read;  // last, because its destructor waits for the read into `bytes`
};

HRESULT sizeOf(const descriptor& file, std::uint64_t& size) {
  struct stat status {};
  if (fstat(file.get(), &status) != 0) return hostFailure("fstat", file);
  size = static_cast<std::uint64_t>(status.st_size);
  return S_OK;
}

HRESULT readWhole(const descriptor& file, const chunk& into) {
  for (std::size_t done = 0; done < into.size;) {
    const ssize_t count = pread(file.get(), into.bytes.get() + done, into.size - done,
                                static_cast<off_t>(into.offset + done));
    if (count < 0) return hostFailure("pread", file);
    if (count == 0) return HRESULT_FROM_WIN32(ERROR_FILE_INVALID);  // it has become shorter
    done += static_cast<std::size_t>(count);
  }
  return S_OK;
}

}  // namespace

restoration::restoration(descriptor localFile, descriptor backingFile, progress_record itsRecord)
    : local(std::move(localFile)),
      backing(std::move(backingFile)),
      record(std::move(itsRecord)),
      position(record.restored()) {}

void restoration::start(int n) {
  reads = n;
  std::thread([self = shared_from_this()] { self->run(); }).detach();
}

void restoration::stop() {
  state expected = state::running;
  now.compare_exchange_strong(expected, state::stopped);
  const std::lock_guard lock(writing);  // waits for a write that is under way
}

bool restoration::wake(int n) {
  reads = n;
  state expected = state::stopped;
  return now.compare_exchange_strong(expected, state::running);
}

HRESULT restoration::progress(ProgressInfo& info) const {
  const HRESULT result = sizeOf(backing, info.total);
  info.progress = position;
  if (result == S_OK && info.progress > info.total) return HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
  info.progress = std::min(info.progress, std::max<std::uint64_t>(info.total, 1) - 1);
  return result;
}

// A start after a stop may come at any time. The thread then continues. It ends only if it finds
// the state `stopped` and changes it to `ended`.
void restoration::run() {
  state expected{};
  do {
    try {
      failed = restore();
    } catch (const std::exception&) {
      failed = E_OUTOFMEMORY;
    }
    if (failed != S_OK || record.isWhole()) now = state::stopped;
    expected = state::stopped;
  } while (!now.compare_exchange_strong(expected, state::ended));
}

// Restores until the file is whole, something fails, or it is stopped.
HRESULT restoration::restore() {
  if (record.isWhole()) return S_OK;
  HRESULT result = save(false);  // before the first byte is written
  // After a failed sync the cache may hold bytes that it will never write to the disk: drop them.
  posix_fadvise(local.get(), 0, 0, POSIX_FADV_DONTNEED);
  std::uint64_t end = UINT64_MAX;
  while (result == S_OK && position != end && isRunning()) {
    result = fill();
    // The backing file may have grown.
    if (result == S_OK) result = sizeOf(backing, end);
  }
  const HRESULT saved = save(result == S_OK && position == end);
  return result != S_OK ? result : saved;
}

// Restores up to the present end of the backing file.
HRESULT restoration::fill() {
  std::uint64_t next = position;
  std::uint64_t end = 0;
  HRESULT result = sizeOf(backing, end);
  if (result == S_OK && end < next) result = HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
  const int wanted = reads;
  const read_share share(wanted);
  // One is written while the others are read.
  std::vector<chunk> chunks(static_cast<std::size_t>(share.count + 1));
  std::size_t begun = 0;
  const auto readNext = [&] {
    chunk& each = chunks[begun++ % chunks.size()];
    each.offset = next;
    each.size = std::min(chunkSize, end - next);
    next += each.size;
    // Reads in a new thread. If none can be started, reads in this one when get() is called.
    each.read = std::async([this, &each] { return readWhole(backing, each); });
  };
  while (result == S_OK && next < end && begun + 1 < chunks.size()) readNext();
  for (std::size_t i = 0; result == S_OK && position < end && isRunning(); ++i) {
    chunk& each = chunks[i % chunks.size()];
    if (each.offset != position || reads != wanted) break;  // stopped and started again
    result = each.read.get();
    if (next < end) readNext();
    if (result == S_OK) result = write(each.bytes.get(), each.size);
    // Sends the chunk to the disk while the next one is read: a sync then has little to wait for.
    sync_file_range(local.get(), static_cast<off_t>(each.offset), static_cast<off_t>(each.size),
                    SYNC_FILE_RANGE_WRITE);
    if (result == S_OK && position - record.restored() >= saveInterval) result = save(false);
  }
  return result;
}

// Writes at the position unless stopped. A chunk of zeros at the file's end is not written: the
// file only becomes longer, by a hole.
HRESULT restoration::write(const char* bytes, std::size_t size) {
  const std::lock_guard lock(writing);
  if (!isRunning()) return S_OK;
  struct stat status {};
  if (fstat(local.get(), &status) != 0) return hostFailure("fstat", local);
  if (status.st_nlink == 0) return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
  const auto offset = static_cast<off_t>(position);
  const auto end = offset + static_cast<off_t>(size);
  if (status.st_size < offset) return HRESULT_FROM_WIN32(ERROR_FILE_INVALID);  // somebody cut it
  const bool isZeros = bytes[0] == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0;
  if (status.st_size == offset && isZeros) {
    if (ftruncate(local.get(), end) != 0) return hostFailure("ftruncate", local);
  } else {
    for (off_t at = offset; at < end;) {
      const ssize_t count =
          pwrite(local.get(), bytes + (at - offset), static_cast<std::size_t>(end - at), at);
      if (count <= 0) return hostFailure("pwrite", local);
      at += count;
    }
  }
  position = static_cast<std::uint64_t>(end);
  return S_OK;
}

// Syncs what is written, and then says so in the record. After a failed sync nobody knows which
// bytes were lost: the next start continues from the record.
HRESULT restoration::save(bool isWhole) {
  std::uint64_t size = 0;
  HRESULT result = fdatasync(local.get()) == 0 ? S_OK : hostFailure("fdatasync", local);
  if (result == S_OK) result = sizeOf(local, size);
  const bool isChanged = isWhole && size != position;  // by somebody else
  if (result == S_OK && isChanged) result = HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
  if (result == S_OK) result = record.save(position, isWhole);
  if (result != S_OK) position = record.restored();
  return result;
}
