#include "restore_filter/restoration.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <exception>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include "platform/posix/last_error.h"

namespace {

constexpr std::size_t chunkSize = 1024 * 1024;  // bytes of one read
constexpr std::uint64_t blockSize = 4096;       // the last one waits for the others

struct byte_range {
  std::uint64_t offset;
  std::uint64_t end;
};

std::uint64_t sizeOf(int file) {
  struct stat status {};
  return fstat(file, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

// Where the next data or hole at or after `offset` begins; the end of the file if there is
// none. Where that can't be told all is data.
std::uint64_t seek(int file, std::uint64_t offset, int what) {
  const off_t found = lseek(file, static_cast<off_t>(offset), what);
  if (found >= 0) return static_cast<std::uint64_t>(found);
  return what == SEEK_DATA && errno != ENXIO ? offset : sizeOf(file);
}

// What the local file lacks: its holes where the backing file has data, `most` of them at
// most, and last all behind its end.
std::vector<byte_range> missingRanges(int local, int backing, std::size_t most) {
  std::vector<byte_range> missing;
  // Pages of zeros that somebody has read into memory would hide a hole.
  posix_fadvise(local, 0, 0, POSIX_FADV_DONTNEED);
  const std::uint64_t size = sizeOf(local);
  std::uint64_t hole = seek(local, 0, SEEK_HOLE);
  while (hole < size && missing.size() < most) {
    const std::uint64_t end = seek(local, hole, SEEK_DATA);
    const std::uint64_t data = seek(backing, hole, SEEK_DATA);
    if (end <= hole) break;
    if (data < end) missing.push_back({data, end});
    hole = seek(local, end, SEEK_HOLE);
  }
  if (missing.empty() || missing.back().end < size) missing.push_back({size, 0});
  missing.back().end = UINT64_MAX;
  return missing;
}

}  // namespace

std::uint64_t restoredSize(int local, int backing) {
  return missingRanges(local, backing, 1).front().offset;
}

// A piece of the backing file, in a buffer unless it is a hole.
struct restoration::piece {
  std::unique_ptr<char[]> bytes;
  std::uint64_t offset;
  std::size_t most;  // bytes to read, fewer at the end of the file
  std::size_t size;
  bool isHole;
  HRESULT failed;
};

restoration::restoration(descriptor localFile, descriptor backingFile, std::uint64_t restored,
                         std::shared_ptr<restoration> earlierOne, restore_failure failedBefore)
    : local(std::move(localFile)),
      backing(std::move(backingFile)),
      earlier(std::move(earlierOne)),
      failed(failedBefore),
      position(restored) {}

void restoration::start(int reads) {
  std::thread([self = shared_from_this(), reads] { self->run(reads); }).detach();
}

void restoration::stop() {
  stopping.request_stop();
  const std::lock_guard lock(writing);  // a write that is under way ends
}

void restoration::run(int reads) {
  HRESULT result = S_OK;
  try {
    result = restore(reads);
  } catch (const std::exception&) {  // no memory, or no thread
    result = E_OUTOFMEMORY;
  }
  // What is still lost keeps its reason.
  if (result != S_OK || failed.lostFrom == restore_failure::nowhere) failed.why = result;
  ended = true;
  ended.notify_all();
}

HRESULT restoration::restore(int reads) {
  if (earlier) {
    earlier->ended.wait(false);
    failed = earlier->failed;
    earlier.reset();
  }
  HRESULT result = cutLost();
  if (result != S_OK || isStopped()) return result;
  sizeAtStart = sizeOf(local.get());
  if (sizeAtStart > 0 && fdatasync(local.get()) != 0) return hostFailure();

  const std::vector<byte_range> missing = missingRanges(local.get(), backing.get(), SIZE_MAX);
  auto range = missing.begin();
  std::uint64_t next = range->offset;
  std::deque<std::future<piece>> ahead;
  const auto readAhead = [&](std::unique_ptr<char[]> buffer) {
    if (next == range->end) next = (++range)->offset;
    const auto most =
        static_cast<std::size_t>(std::min<std::uint64_t>(chunkSize, range->end - next));
    // In a thread of its own; when there is none, by this one when its turn comes.
    ahead.push_back(
        std::async(&restoration::read, this, piece{std::move(buffer), next, most, 0, false, S_OK}));
    next += most;
  };
  const std::uint64_t end = sizeOf(backing.get());
  do {
    readAhead(std::make_unique_for_overwrite<char[]>(chunkSize));
  } while (ahead.size() < static_cast<std::size_t>(reads) && next < end);

  std::unique_ptr<char[]> buffer = std::make_unique_for_overwrite<char[]>(chunkSize);
  while (!isStopped()) {
    piece chunk = ahead.front().get();
    ahead.pop_front();
    if (ahead.empty() || next < sizeOf(backing.get())) readAhead(std::move(buffer));
    position = chunk.offset;
    bool isLast = false;
    result = chunk.failed;
    if (result == S_OK) result = readOn(chunk, isLast);
    if (result == S_OK) result = isLast ? writeLast(chunk) : write(chunk, 0, chunk.size);
    if (result != S_OK || isLast) {
      stopping.request_stop();
      return result;
    }
    buffer = std::move(chunk.bytes);
  }
  return S_OK;
}

// Reads the piece at its offset, as much as is wanted or to the end of the file.
restoration::piece restoration::read(piece chunk) const {
  const std::uint64_t end = sizeOf(backing.get());
  if (chunk.offset >= end) return chunk;
  const auto wanted =
      static_cast<std::size_t>(std::min<std::uint64_t>(chunk.most, end - chunk.offset));
  if (seek(backing.get(), chunk.offset, SEEK_DATA) >= chunk.offset + wanted) {
    chunk.isHole = true;
    chunk.size = wanted;
    return chunk;
  }
  while (chunk.size < wanted && !isStopped()) {
    const ssize_t count = pread(backing.get(), chunk.bytes.get() + chunk.size, wanted - chunk.size,
                                static_cast<off_t>(chunk.offset + chunk.size));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) chunk.failed = hostFailure();
    if (count <= 0) break;
    chunk.size += static_cast<std::size_t>(count);
  }
  return chunk;
}

// Tells whether the backing file ends with the piece, and reads the rest of the piece where
// the file has grown since. ERROR_FILE_INVALID when it has become shorter than what was read
// or restored.
HRESULT restoration::readOn(piece& chunk, bool& isLast) const {
  while (!isStopped()) {
    struct stat status {};
    if (fstat(backing.get(), &status) != 0) return hostFailure();
    const auto end = static_cast<std::uint64_t>(status.st_size);
    const std::uint64_t read = chunk.offset + chunk.size;
    isLast = end == read;
    if (end < read || (isLast && end < sizeAtStart)) return HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
    if (isLast || chunk.size == chunk.most) break;
    const std::size_t size = std::exchange(chunk.size, 0);
    chunk.isHole = false;
    chunk = this->read(std::move(chunk));
    if (chunk.failed != S_OK) return chunk.failed;
    if (chunk.size <= size && !isStopped()) return HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
  }
  return S_OK;
}

// Writes the bytes `from` to `to` of the piece, unless it has been stopped. A hole only makes
// the file longer.
HRESULT restoration::write(const piece& chunk, std::size_t from, std::size_t to) {
  const std::lock_guard lock(writing);
  if (isStopped()) return S_OK;
  struct stat status {};
  if (fstat(local.get(), &status) != 0) return hostFailure();
  if (status.st_nlink == 0) return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
  const auto size = static_cast<std::uint64_t>(status.st_size);
  if (size < chunk.offset + from) return HRESULT_FROM_WIN32(ERROR_FILE_INVALID);  // somebody cut it
  if (chunk.isHole) {
    const std::uint64_t end = chunk.offset + to;
    const bool isLonger = size >= end || ftruncate(local.get(), static_cast<off_t>(end)) == 0;
    return isLonger ? S_OK : hostFailure();
  }
  while (from < to) {
    const ssize_t count = pwrite(local.get(), chunk.bytes.get() + from, to - from,
                                 static_cast<off_t>(chunk.offset + from));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return hostFailure();
    from += static_cast<std::size_t>(count);
  }
  // On its way to the disk while the next is read: the end has little left to wait for.
  sync_file_range(local.get(), static_cast<off_t>(chunk.offset), static_cast<off_t>(to),
                  SYNC_FILE_RANGE_WRITE);
  return S_OK;
}

// Writes the last piece, and of that the last block when all before it is on the disk.
HRESULT restoration::writeLast(const piece& chunk) {
  finishing = true;
  const std::uint64_t end = chunk.offset + chunk.size;
  const std::uint64_t lastBlock = end == 0 ? 0 : (end - 1) / blockSize * blockSize;
  const auto body = static_cast<std::size_t>(std::max(lastBlock, chunk.offset) - chunk.offset);
  HRESULT result = write(chunk, 0, std::min(body, chunk.size));
  if (result == S_OK) result = bringToDisk();
  if (result == S_OK) result = write(chunk, std::min(body, chunk.size), chunk.size);
  return result == S_OK ? bringToDisk() : result;
}

HRESULT restoration::bringToDisk() {
  if (isStopped() || fdatasync(local.get()) == 0) return S_OK;
  const HRESULT result = hostFailure();
  failed.lostFrom = sizeAtStart;
  const HRESULT cut = cutLost();
  return cut != S_OK ? cut : result;
}

// Cuts the local file to what surely is there, unless it has been stopped: the next start
// does it then.
HRESULT restoration::cutLost() {
  const std::lock_guard lock(writing);
  if (isStopped()) return S_OK;
  if (failed.lostFrom < sizeOf(local.get()) &&
      ftruncate(local.get(), static_cast<off_t>(failed.lostFrom)) != 0) {
    return hostFailure();
  }
  failed = {};
  return S_OK;
}
