#include "restore_filter/restoration.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/posix/last_error.h"

namespace {

constexpr std::size_t chunkSize = 1024 * 1024;  // bytes of one read

std::uint64_t sizeOf(int file) {
  struct stat status {};
  return fstat(file, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

bool isDeleted(int file) {
  struct stat status {};
  return fstat(file, &status) == 0 && status.st_nlink == 0;
}

// Reads until the chunk is full or the file ends; the count, or -1.
ssize_t readChunk(int file, std::vector<char>& chunk, std::uint64_t offset) {
  std::size_t size = 0;
  while (size < chunk.size()) {
    const ssize_t count =
        pread(file, chunk.data() + size, chunk.size() - size, static_cast<off_t>(offset + size));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -1;
    if (count == 0) break;
    size += static_cast<std::size_t>(count);
  }
  return static_cast<ssize_t>(size);
}

HRESULT hostFailure() { return HRESULT_FROM_WIN32(windowsErrorFor(errno)); }

}  // namespace

restoration::restoration(descriptor localFile, descriptor backingFile, int reads)
    : local(std::move(localFile)),
      backing(std::move(backingFile)),
      nextRead(sizeOf(local.get())),
      nextWrite(nextRead),
      running(reads) {
  threads.reserve(static_cast<std::size_t>(reads));
  std::unique_lock gate(mutex);  // nobody reads before all are there
  try {
    while (threads.size() < static_cast<std::size_t>(reads)) {
      threads.emplace_back([this] { restoreChunks(); });
    }
  } catch (...) {
    isEnding = true;
    gate.unlock();
    for (std::thread& thread : threads) thread.join();
    throw;
  }
}

restoration::~restoration() {
  finish(S_OK);
  for (std::thread& thread : threads) thread.join();
}

bool restoration::isRunning() {
  const std::lock_guard lock(mutex);
  return running > 0;
}

HRESULT restoration::failure() {
  const std::lock_guard lock(mutex);
  return result;
}

void restoration::restoreChunks() {
  try {
    std::vector<char> chunk(chunkSize);
    std::uint64_t offset = 0;
    while (takeChunk(offset)) {
      const ssize_t size = readChunk(backing.get(), chunk, offset);
      const HRESULT readResult = size < 0 ? hostFailure() : S_OK;
      if (!awaitTurn(offset)) break;
      if (readResult != S_OK) {
        finish(readResult);
        break;
      }
      auto count = static_cast<std::size_t>(size);
      const HRESULT endResult = readOn(chunk, count, offset);
      const HRESULT writeResult = writeChunk(chunk, count, offset);
      if (writeResult != S_OK) {
        finish(writeResult);
        break;
      }
      if (count < chunkSize) {
        finish(endResult);
        break;
      }
      const std::lock_guard lock(mutex);
      nextWrite += count;
      written.notify_all();
    }
  } catch (const std::bad_alloc&) {
    finish(E_OUTOFMEMORY);
  }
  const std::lock_guard lock(mutex);
  --running;
}

bool restoration::takeChunk(std::uint64_t& offset) {
  const std::lock_guard lock(mutex);
  offset = nextRead;
  nextRead += chunkSize;
  return !isEnding;
}

// Waits until all before `offset` is written; false when the restoration ends.
bool restoration::awaitTurn(std::uint64_t offset) {
  std::unique_lock lock(mutex);
  written.wait(lock, [&] { return isEnding || nextWrite == offset; });
  return !isEnding;
}

// Reads the rest of a chunk of `size` bytes at `offset` where the backing file has
// grown since. S_OK when the file ends with the chunk or goes on after it;
// ERROR_FILE_INVALID when it has shrunk.
HRESULT restoration::readOn(std::vector<char>& chunk, std::size_t& size,
                            std::uint64_t offset) const {
  while (size < chunkSize) {
    struct stat status {};
    if (fstat(backing.get(), &status) != 0) return hostFailure();
    const auto end = static_cast<std::uint64_t>(status.st_size);
    if (end == offset + size) return S_OK;
    if (end < offset + size) return HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
    const ssize_t longer = readChunk(backing.get(), chunk, offset);
    if (longer < 0) return hostFailure();
    if (longer <= static_cast<ssize_t>(size)) return HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
    size = static_cast<std::size_t>(longer);
  }
  return S_OK;
}

HRESULT restoration::writeChunk(const std::vector<char>& chunk, std::size_t size,
                                std::uint64_t offset) const {
  if (isDeleted(local.get())) return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
  for (std::size_t done = 0; done < size;) {
    const ssize_t count =
        pwrite(local.get(), chunk.data() + done, size - done, static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return hostFailure();
    done += static_cast<std::size_t>(count);
  }
  return S_OK;
}

// The first reason stands.
void restoration::finish(HRESULT reason) {
  const std::lock_guard lock(mutex);
  if (!isEnding) result = reason;
  isEnding = true;
  written.notify_all();
}
