#include "restore_filter/restoration.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "platform/posix/last_error.h"

namespace {

constexpr std::size_t chunkSize = 1024 * 1024;  // bytes of one read
constexpr std::uint64_t blockSize = 4096;       // the last one waits for the others

HRESULT hostFailure() { return HRESULT_FROM_WIN32(windowsErrorFor(errno)); }

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

// How much of the local file is restored: up to its end, or to a hole where the backing
// file has data. Such a hole is what a crash leaves of data that was not on the disk yet.
std::uint64_t restoredSize(int local, int backing) {
  // Pages of zeros that somebody has read into memory would hide such a hole.
  posix_fadvise(local, 0, 0, POSIX_FADV_DONTNEED);
  const std::uint64_t size = sizeOf(local);
  std::uint64_t hole = seek(local, 0, SEEK_HOLE);
  while (hole < size) {
    const std::uint64_t end = seek(local, hole, SEEK_DATA);
    const std::uint64_t data = seek(backing, hole, SEEK_DATA);
    if (data < end || end == hole) return std::min(data, size) / blockSize * blockSize;
    hole = seek(local, end, SEEK_HOLE);
  }
  return size;
}

}  // namespace

restoration::restoration(descriptor localFile, descriptor backingFile)
    : local(std::move(localFile)),
      backing(std::move(backingFile)),
      sizeAtStart(sizeOf(local.get())),
      nextRead(restoredSize(local.get(), backing.get())),
      nextWrite(nextRead) {}

void restoration::start(int reads) {
  const std::uint64_t size = sizeOf(backing.get());
  const std::uint64_t left = size > nextRead ? size - nextRead : 0;
  const auto needed =
      std::clamp<std::uint64_t>(left / chunkSize + 1, 1, static_cast<unsigned>(reads));
  const std::unique_lock gate(mutex);  // nobody reads before all are there
  try {
    while (static_cast<std::uint64_t>(running) < needed) {
      std::thread([self = shared_from_this()] { self->restoreChunks(); }).detach();
      ++running;
    }
  } catch (...) {
    isEnding = true;
    throw;
  }
}

void restoration::end() {
  finish(S_OK);
  std::unique_lock lock(mutex);
  changed.wait(lock, [&] { return !isWriting; });
}

bool restoration::isRunning() {
  const std::lock_guard lock(mutex);
  return running > 0 && (!isEnding || isWriting || isSyncing);
}

bool restoration::isFinishing() {
  const std::lock_guard lock(mutex);
  return isAtEnd && !isEnding;
}

HRESULT restoration::failure() {
  const std::lock_guard lock(mutex);
  return result;
}

void restoration::restoreChunks() {
  try {
    piece chunk{std::make_unique_for_overwrite<char[]>(chunkSize), 0, 0, false, false};
    while (takeChunk(chunk)) {
      const HRESULT failed = restoreChunk(chunk);
      if (failed != S_OK || chunk.isLast) finish(failed);
    }
  } catch (const std::bad_alloc&) {
    finish(E_OUTOFMEMORY);
  }
  const std::lock_guard lock(mutex);
  --running;
}

bool restoration::takeChunk(piece& chunk) {
  const std::lock_guard lock(mutex);
  chunk.offset = nextRead;
  nextRead += chunkSize;
  return !isEnding;
}

// Reads a chunk, waits until all before it is written, and writes it.
HRESULT restoration::restoreChunk(piece& chunk) {
  HRESULT failed = readChunk(chunk);
  {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return isEnding || nextWrite == chunk.offset; });
    if (isEnding) return S_OK;
  }
  if (failed == S_OK) failed = readOn(chunk);
  if (failed == S_OK) failed = chunk.isLast ? writeLast(chunk) : write(chunk, 0, chunk.size);
  if (failed != S_OK || chunk.isLast) return failed;
  const std::lock_guard lock(mutex);
  nextWrite += chunk.size;
  changed.notify_all();
  return S_OK;
}

// Reads the chunk at its offset, to its full size or the end of the file.
HRESULT restoration::readChunk(piece& chunk) const {
  chunk.size = 0;
  chunk.isHole = false;
  const std::uint64_t end = sizeOf(backing.get());
  if (chunk.offset >= end) return S_OK;
  const auto wanted =
      static_cast<std::size_t>(std::min<std::uint64_t>(chunkSize, end - chunk.offset));
  if (seek(backing.get(), chunk.offset, SEEK_DATA) >= chunk.offset + wanted) {
    chunk.isHole = true;
    chunk.size = wanted;
    return S_OK;
  }
  while (chunk.size < wanted && !isEnding) {
    const ssize_t count = pread(backing.get(), chunk.bytes.get() + chunk.size, wanted - chunk.size,
                                static_cast<off_t>(chunk.offset + chunk.size));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return hostFailure();
    if (count == 0) break;
    chunk.size += static_cast<std::size_t>(count);
  }
  return S_OK;
}

// Tells whether the backing file ends with the chunk, and reads the rest of the chunk where
// the file has grown since. ERROR_FILE_INVALID when it has become shorter than what was read
// or restored.
HRESULT restoration::readOn(piece& chunk) const {
  for (;;) {
    struct stat status {};
    if (fstat(backing.get(), &status) != 0) return hostFailure();
    const auto end = static_cast<std::uint64_t>(status.st_size);
    const std::uint64_t read = chunk.offset + chunk.size;
    chunk.isLast = end == read;
    if (end < read || (chunk.isLast && end < sizeAtStart)) {
      return HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
    }
    if (chunk.isLast || chunk.size == chunkSize || isEnding) return S_OK;
    const std::size_t size = chunk.size;
    const HRESULT failed = readChunk(chunk);
    if (failed != S_OK) return failed;
    if (chunk.size <= size && !isEnding) return HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
  }
}

// Writes the bytes `from` to `to` of the chunk, unless the restoration is ending.
HRESULT restoration::write(const piece& chunk, std::size_t from, std::size_t to) {
  {
    const std::lock_guard lock(mutex);
    if (isEnding) return S_OK;
    isWriting = true;
  }
  const HRESULT failed = append(chunk, from, to);
  const std::lock_guard lock(mutex);
  isWriting = false;
  changed.notify_all();
  return failed;
}

// A hole only makes the file longer.
HRESULT restoration::append(const piece& chunk, std::size_t from, std::size_t to) const {
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

// Writes the last chunk, and of that the last block when all before it is on the disk.
HRESULT restoration::writeLast(const piece& chunk) {
  {
    const std::lock_guard lock(mutex);
    isAtEnd = true;
  }
  const std::uint64_t end = chunk.offset + chunk.size;
  const std::uint64_t lastBlock = end == 0 ? 0 : (end - 1) / blockSize * blockSize;
  const auto body = static_cast<std::size_t>(std::max(lastBlock, chunk.offset) - chunk.offset);
  HRESULT failed = write(chunk, 0, std::min(body, chunk.size));
  if (failed == S_OK) failed = bringToDisk();
  if (failed == S_OK) failed = write(chunk, std::min(body, chunk.size), chunk.size);
  return failed == S_OK ? bringToDisk() : failed;
}

HRESULT restoration::bringToDisk() {
  {
    const std::lock_guard lock(mutex);
    if (isEnding) return S_OK;
    isSyncing = true;
  }
  HRESULT failed = fdatasync(local.get()) == 0 ? S_OK : hostFailure();
  if (failed != S_OK && ftruncate(local.get(), 0) != 0) failed = hostFailure();
  const std::lock_guard lock(mutex);
  isSyncing = false;
  if (failed != S_OK && isEnding) result = failed;  // what was lost counts, also after a stop
  return failed;
}

// The first reason stands.
void restoration::finish(HRESULT reason) {
  const std::lock_guard lock(mutex);
  if (!isEnding) result = reason;
  isEnding = true;
  changed.notify_all();
}
