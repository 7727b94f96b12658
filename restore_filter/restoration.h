#pragma once

#include <windows.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "restore_filter/descriptor.h"

/// One aggressive restoration: fills a local file from its backing file with n
/// concurrent reads. Writes go to the end of the local file, in order, so what it
/// holds is always the beginning of the backing file, and a new restoration goes on
/// from there: it takes what it finds for such a beginning. Holes are kept. The last
/// block is written when all before it is on the disk, so a file as long as its backing
/// file is whole, after a crash of the machine too; one that is shorter may then have a
/// hole that its backing file has not, and a new restoration goes on from that hole. When
/// bringing it to the disk fails nobody knows what was lost, and the file is emptied.
class restoration : public std::enable_shared_from_this<restoration> {
 public:
  /// Takes both files, `local` open for reading and writing.
  restoration(descriptor local, descriptor backing);

  /// Starts `reads` threads, 1 to 64, or fewer where the file has fewer chunks. Throws
  /// std::system_error when they can't be had; nothing is written then.
  void start(int reads);

  /// Ends it, and the local file keeps what it has. Nothing is written once this has
  /// returned; what is under way to or from a disk ends on its own.
  void end();

  /// Whether the local file may still change, or its failure come. Reads that hang when
  /// all else has ended don't count.
  bool isRunning();
  /// Whether it has come to the end of the backing file and was not told to end: what is
  /// left is to bring the last of it to the disk.
  bool isFinishing();
  /// Why it ended before the whole file was restored; S_OK when it didn't.
  HRESULT failure();

 private:
  // A piece of the backing file, in a buffer unless it is a hole.
  struct piece {
    std::unique_ptr<char[]> bytes;
    std::uint64_t offset;
    std::size_t size;
    bool isHole;
    bool isLast;
  };

  void restoreChunks();
  HRESULT restoreChunk(piece& chunk);
  bool takeChunk(piece& chunk);
  HRESULT readChunk(piece& chunk) const;
  HRESULT readOn(piece& chunk) const;
  HRESULT write(const piece& chunk, std::size_t from, std::size_t to);
  HRESULT append(const piece& chunk, std::size_t from, std::size_t to) const;
  HRESULT writeLast(const piece& chunk);
  HRESULT bringToDisk();
  void finish(HRESULT reason);

  const descriptor local;
  const descriptor backing;
  const std::uint64_t sizeAtStart;  // of the local file

  std::atomic<bool> isEnding = false;
  std::mutex mutex;  // guards what follows
  std::condition_variable changed;
  std::uint64_t nextRead;   // offset of the next chunk to read
  std::uint64_t nextWrite;  // offset up to which the local file is restored
  bool isWriting = false;
  bool isSyncing = false;
  bool isAtEnd = false;
  int running = 0;  // threads that have not ended
  HRESULT result = S_OK;
};
