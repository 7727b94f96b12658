#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/linux/descriptor.h"
#include "restore_filter/host_files.h"
#include "restore_filter/streams.h"

/// The local file, open for writing and locked; its backing file; the record, open for saving.
struct restoration_files {
  descriptor local;
  descriptor backing;
  progress_record record;
};

/// One pass of a restoration: fills a local file from byte 0 to the end of one unchanged backing
/// file. The public functions are for the one thread that handles messages.
///
/// - Below `position`, which is at most the backing file's size, the local file has the backing
///   file's bytes, except where a program has written.
/// - Only run() moves `position` and changes the local file, and only while it holds `writing` and
///   the state is `running`. It runs in the pass's own thread, or in start() for an empty backing
///   file.
/// - The state becomes `running` by start() and wake(), `stopped` by stop(), and `ended` as the
/// last
///   thing that run() does, or by start() if no thread can be created. It is `ended` at first.
/// - `files`, `hasBegun` and `result` belong to run() until the pass has ended, and then to the
///   caller.
class restoration : public std::enable_shared_from_this<restoration> {
 public:
  restoration(std::string pathOfBacking, const file_stamp& stampOfBacking)
      : backingPath(std::move(pathOfBacking)), backingStamp(stampOfBacking) {}

  /// Begins, or continues after it has ended, with at most n reads at a time. From an empty backing
  /// file it ends at once. Throws its `failure` then, and E_OUTOFMEMORY if no thread can be
  /// created.
  void start(restoration_files with, int n);
  /// After this returns, nothing is written into the local file. Waits for no sync and no read.
  void stop();
  /// Continues one that is stopped, with at most n reads. False if it is not stopped.
  bool wake(int n);
  /// Once it has ended: closes the files, which unlocks the local file.
  void close() { files.reset(); }

  bool isRunning() const { return now == state::running; }
  bool hasEnded() const { return now == state::ended; }
  /// Whether a stopped pass can continue: the tag has this backing path, and neither file has
  /// changed since.
  bool canContinue(const std::string& path, const file_stamp& backing,
                   const file_stamp& local) const {
    return path == backingPath && backing == backingStamp && local == stoppedStamp;
  }
  std::uint64_t restored() const { return position; }
  std::uint64_t total() const { return backingStamp.size; }
  /// Once it has ended: why, S_OK if it was stopped or the file is whole.
  HRESULT outcome() const { return result; }
  bool isWhole() const { return result == S_OK && position == total(); }

 private:
  enum class state { running, stopped, ended };

  bool change(state from, state to) { return now.compare_exchange_strong(from, to); }
  void run();
  HRESULT restore();
  void fill();
  bool empty();
  bool write(const char* bytes, std::size_t size);

  const std::string backingPath;
  const file_stamp backingStamp;  // when the pass began
  file_stamp stoppedStamp;        // of the local file, when the pass was stopped
  std::optional<restoration_files> files;
  bool hasBegun = false;  // the record says so
  HRESULT result = S_OK;
  std::atomic<std::uint64_t> position = 0;
  std::atomic<int> reads = 0;  // the latest start's n
  std::atomic<state> now = state::ended;
  std::mutex writing;
};
