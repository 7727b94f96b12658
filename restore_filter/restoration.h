#pragma once

#include <windows.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "restore_filter/descriptor.h"

/// One aggressive restoration: fills a local file from its backing file with n
/// concurrent reads. Writes go to the end of the local file, in order, so what it
/// holds is always the beginning of the backing file, also after a kill, and a
/// new restoration goes on from there: it takes what it finds for such a beginning.
class restoration {
 public:
  /// Starts `reads` threads, 1 to 64; takes both files, `local` open for writing.
  /// Throws std::system_error or std::bad_alloc when they can't be had.
  restoration(descriptor local, descriptor backing, int reads);
  /// Ends it and waits for its threads; the local file keeps what it has.
  ~restoration();

  bool isRunning();
  /// Why it ended before the whole file was restored; S_OK when it didn't.
  HRESULT failure();

 private:
  void restoreChunks();
  bool takeChunk(std::uint64_t& offset);
  bool awaitTurn(std::uint64_t offset);
  HRESULT readOn(std::vector<char>& chunk, std::size_t& size, std::uint64_t offset) const;
  HRESULT writeChunk(const std::vector<char>& chunk, std::size_t size, std::uint64_t offset) const;
  void finish(HRESULT reason);

  const descriptor local;
  const descriptor backing;

  std::mutex mutex;  // guards what follows, but the threads
  std::condition_variable written;
  std::uint64_t nextRead;   // offset of the next chunk to read
  std::uint64_t nextWrite;  // offset up to which the local file is restored
  int running;              // threads that have not ended
  bool isEnding = false;
  HRESULT result = S_OK;

  std::vector<std::thread> threads;
};
