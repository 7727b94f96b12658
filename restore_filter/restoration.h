#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stop_token>

#include "platform/posix/descriptor.h"

/// Why a restoration failed, and from where on bytes of the local file may be lost,
/// because bringing them to the disk failed after a stop had been answered.
struct restore_failure {
  static constexpr std::uint64_t nowhere = UINT64_MAX;
  HRESULT why = S_OK;
  std::uint64_t lostFrom = nowhere;
};

/// How much of the local file is restored: up to its end, or to a hole where the backing
/// file has data. A crash leaves such holes, and so does a file that was made in advance.
std::uint64_t restoredSize(int local, int backing);

/// One aggressive restoration: fills a local file from its backing file with n concurrent
/// reads. One thread writes, in order: into the holes of the local file where the backing
/// file has data, then behind its end. What the local file has is taken for the backing
/// file's, without comparing, and never written over. Holes of the backing file are kept.
/// The last block is written when all before it is on the disk, so a file as long as its
/// backing file and without such holes is whole, after a crash of the machine too. When
/// bringing it to the disk fails, nobody knows which of the new bytes were lost: the file is
/// cut to what it had at the start, which was brought to the disk first.
class restoration : public std::enable_shared_from_this<restoration> {
 public:
  /// Takes both files, `local` open for reading and writing and restored up to `restored`.
  /// `earlier`, or null, is a stopped one of the same file that may still be bringing it to
  /// the disk: this one waits for it. `failed` is how the one before ended.
  restoration(descriptor local, descriptor backing, std::uint64_t restored,
              std::shared_ptr<restoration> earlier, restore_failure failed);

  /// Begins, with at most `reads` reads at a time. Throws std::system_error when it can't
  /// have a thread.
  void start(int reads);

  /// Nothing is written once this has returned; what is under way to or from a disk ends on
  /// its own.
  void stop();

  bool isStopped() const { return stopping.stop_requested(); }
  /// Whether all is read, and only the last of it has to come to the disk.
  bool isFinishing() const { return finishing; }
  /// Whether it has ended, and how: S_OK when it was whole or stopped.
  bool hasEnded() const { return ended; }
  const restore_failure& failure() const { return failed; }
  /// Up to where the local file is restored.
  std::uint64_t progress() const { return position; }

 private:
  struct piece;

  void run(int reads);
  HRESULT restore(int reads);
  piece read(piece chunk) const;
  HRESULT readOn(piece& chunk, bool& isLast) const;
  HRESULT write(const piece& chunk, std::size_t from, std::size_t to);
  HRESULT writeLast(const piece& chunk);
  HRESULT bringToDisk();
  HRESULT cutLost();

  const descriptor local;
  const descriptor backing;
  std::shared_ptr<restoration> earlier;
  std::uint64_t sizeAtStart = 0;  // of the local file, when that is on the disk
  restore_failure failed;         // for others when it has ended

  std::stop_source stopping;
  std::mutex writing;  // held while the local file is changed
  std::atomic<std::uint64_t> position;
  std::atomic<bool> finishing = false;
  std::atomic<bool> ended = false;
};
