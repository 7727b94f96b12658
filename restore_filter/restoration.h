#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/posix/descriptor.h"
#include "restore_filter/streams.h"
#include "zan_restore_filter.h"

/// One aggressive restoration: fills a local file from its backing file with n concurrent reads.
/// Its thread writes in order, from where the record says, and syncs data before the record. The
/// public functions are for the one thread that handles messages.
class restoration : public std::enable_shared_from_this<restoration> {
 public:
  /// Takes both files, `local` open for reading and writing, and the record, open for save().
  restoration(descriptor local, descriptor backing, progress_record record);

  /// Begins, with at most n reads at a time. Throws std::system_error if no thread is to be had.
  void start(int n);
  /// After this returns, nothing is written into the local file. Does not wait for a sync or for
  /// reads that are under way.
  void stop();
  /// Continues one that is stopped, with at most n reads. False if it is not stopped.
  bool wake(int n);

  bool isRunning() const { return now == state::running; }
  bool hasEnded() const { return now == state::ended; }
  /// Why it ended: S_OK if the file is whole or it was stopped. Valid once it has ended.
  HRESULT failure() const { return failed; }
  /// How many bytes are written, fewer than the total until the end. The total is the backing
  /// file's size.
  HRESULT progress(ProgressInfo& info) const;

 private:
  enum class state { running, stopped, ended };

  void run();
  HRESULT restore();
  HRESULT fill();
  HRESULT write(const char* bytes, std::size_t size);
  HRESULT save(bool isWhole);

  const descriptor local;
  const descriptor backing;
  progress_record record;               // used only by its thread
  HRESULT failed = S_OK;                // used only by its thread until that has ended
  std::atomic<std::uint64_t> position;  // the end of what is written; set only by its thread
  std::atomic<int> reads = 0;           // the latest start's n
  std::atomic<state> now = state::running;
  std::mutex writing;  // held while the local file is changed
};
