#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/posix/descriptor.h"
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
/// - Only the pass's own thread moves `position` and changes the local file, and only while it
///   holds `writing` and the state is `running`.
/// - The state becomes `running` by start() and wake(), `stopped` by stop(), and `ended` by the
///   thread as the last thing that it does. Before the first start it is `ended`.
/// - `files` and `failed` belong to the thread until it has ended, and then to the caller.
class restoration : public std::enable_shared_from_this<restoration> {
 public:
  restoration(std::string pathOfBacking, const file_stamp& stampOfBacking)
      : backingPath(std::move(pathOfBacking)), backingStamp(stampOfBacking) {}

  /// Begins, or continues after it has ended, with at most n reads at a time. S_OK, or
  /// E_OUTOFMEMORY as long as no thread is to be had. From an empty backing file it ends at once.
  HRESULT start(restoration_files with, int n);
  /// After this returns, nothing is written into the local file. Waits for no sync and no read.
  void stop();
  /// Continues one that is stopped, with at most n reads. False if it is not stopped.
  bool wake(int n);
  /// Once it has ended: closes the files, which unlocks the local file.
  void close() { files.reset(); }

  bool isRunning() const { return now == state::running; }
  bool hasEnded() const { return now == state::ended; }
  /// Whether it fills the file from this backing file, unchanged, for a tag with this path.
  bool isPassOver(const std::string& path, const file_stamp& stamp) const {
    return path == backingPath && stamp == backingStamp;
  }
  std::uint64_t restored() const { return position; }
  std::uint64_t total() const { return backingStamp.size; }
  /// Once it has ended: why, S_OK if it was stopped or the file is whole.
  HRESULT failure() const { return failed; }
  bool isWhole() const { return failed == S_OK && position == total(); }
  /// Whether it was stopped on this pass, of which the record speaks, and nobody has cut the file.
  bool canContinue(const std::string& path, const file_stamp& stamp, std::uint64_t recorded,
                   std::uint64_t localSize) const {
    return isPassOver(path, stamp) && failed == S_OK && recorded == pass && localSize >= position;
  }
  /// Its number. Later passes have higher ones, also those of other processes.
  std::uint64_t number() const { return pass; }

 private:
  enum class state { running, stopped, ended };

  static std::uint64_t passNumber();
  bool change(state from, state to) { return now.compare_exchange_strong(from, to); }
  void run();
  HRESULT restore();
  HRESULT fill();
  HRESULT write(const char* bytes, std::size_t size);

  const std::uint64_t pass = passNumber();
  const std::string backingPath;
  const file_stamp backingStamp;  // when the pass began
  std::optional<restoration_files> files;
  HRESULT failed = S_OK;
  std::atomic<std::uint64_t> position = 0;
  std::atomic<int> reads = 0;  // the latest start's n
  std::atomic<state> now = state::ended;
  std::mutex writing;
};
