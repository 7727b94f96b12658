#pragma once

#include <windows.h>
// after <windows.h>:
#include <fltuser.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "zan_restore_filter.h"

// What ends a statement or the run early. So does a system_failure.
struct violation {
  std::string expected;  // by the contract
};
struct unanswered : violation {};
struct untried {
  std::string reason;
};
struct interruption {};

inline std::atomic<bool> isInterrupted = false;

void pauseFor(std::chrono::milliseconds time);
std::string hex(HRESULT result);
bool isEnd(const ProgressInfo& info);

inline void expect(bool holds, const std::string& expected) {
  if (!holds) throw violation{expected};
}
inline void expectResult(HRESULT came, HRESULT expected = S_OK) {
  expect(came == expected, hex(expected));
}

/// Why a file that takes longer to restore is not tried.
inline constexpr const char* noRoom = "there is no room for a larger file";

/// The names of the operations, by their number.
inline constexpr const char* operationNames[] = {"ping", "start", "stop", "progress query"};

/// A tag with this path.
std::string tagFor(const std::wstring& backingPath);

/// A new folder in another one. Removes it with its content. If something in it cannot be removed,
/// tries again for 10 s.
struct own_folder {
  explicit own_folder(const std::filesystem::path& parent);
  ~own_folder();
  own_folder(const own_folder&) = delete;
  own_folder& operator=(const own_folder&) = delete;
  std::filesystem::path path;
};

/// A message about a file, with the tool's values unless changed, and its answer.
struct request {
  ControlOperation operation = ControlOperation::Ping;
  std::int32_t n = 4;  // of a start
  std::size_t size = sizeof(ControlMessage);
  std::size_t room = 0;                  // for the reply
  HANDLE handle = INVALID_HANDLE_VALUE;  // sent instead of the file's
  std::uint32_t unused = 0;              // in the fields that a ping does not use
  bool isClosed = false;                 // whether to close the file's handle before the send
};
struct answer {
  HRESULT result;
  std::string reply;
};

/// A thread that is abandoned unless it was joined.
struct worker_thread : std::thread {
  using thread::thread;
  ~worker_thread() {
    if (joinable()) detach();
  }
};

/// What a statement is tried with: files, messages about them, and waiting. Anything that breaks
/// the contract throws violation. Waits at most `limit` for an answer and until a start is
/// accepted. Waits six times `limit` for the first file that makes no progress, and `limit` for
/// each later one.
class trial {
 public:
  using path = std::filesystem::path;
  using file_action = std::function<void(const path& file, std::uint64_t backingSize)>;

  /// Works in new folders in `parent` and in `backingParent`, which the filter calls `as`.
  trial(const path& parent, const path& backingParent, const std::wstring& as, std::wstring port,
        std::chrono::seconds longest);
  const std::chrono::seconds limit;

  /// Begins another statement: removes what the previous one left, if it can be removed.
  void clear();
  /// What was sent and came; what the filter does where the contract leaves it open.
  const std::vector<std::string>& log() const { return lines; }
  const std::string& choice() const { return chosen; }
  void choose(const std::string& what) { chosen = what; }

  // Files. newFile() creates nextFile(), without or with a tag.
  const path& folder() const { return ownFolder.path; }
  path nextFile() const { return folder() / ("file" + std::to_string(files + 1)); }
  path newFile();
  path newFile(const std::string& tag);
  path newFile(std::uint64_t backingSize) { return newFile(tagOf(backingSize)); }
  static void remove(const path& file);  // with its tag
  /// Removes a file, and creates one of its name as soon as the name is free.
  void replace(const path& file, const std::string& tag) const;
  static void rename(const path& file, const path& name);  // with its tag

  /// The path of a backing file as the filter knows it.
  std::wstring backingPath(const std::wstring& name) const { return prefix + name; }
  /// A backing file of random bytes, named by its size. Made anew if it was removed or cut.
  path backing(std::uint64_t size) const;
  std::string tagOf(std::uint64_t backingSize) const;

  // Messages.
  /// Connects with a context of `size` bytes, all `filling`. Returns the answer and the port.
  std::pair<HRESULT, HANDLE> tryConnect(std::size_t size, char filling = 0);
  HANDLE connect(char filling = 0);
  answer send(const path& file, const request& what);
  /// One start, which may be refused.
  HRESULT tryStart(const path& file, std::int32_t n = 4);
  /// Starts a file. A filter may be busy with others: tries for `limit` until the answer is as
  /// expected, or the file is whole.
  void start(const path& file, std::int32_t n = 4, HRESULT expected = S_OK);
  ProgressInfo progress(const path& file);
  HRESULT query(const path& file, ProgressInfo& info);  // the same, but may fail
  /// Stops a file that is being restored. Whether a stop of a whole file succeeds is open.
  void stop(const path& file);
  /// Stops a file when a quarter of it is restored, or after 200 ms. Returns the progress before.
  ProgressInfo stopLater(const path& file);
  /// Sends a message about a new file; expects E_INVALIDARG.
  void expectRefused(const request& what) {
    expectResult(send(newFile(), what).result, E_INVALIDARG);
  }

  // Restorations.
  /// Waits until the file is whole; then it must have the content of another file.
  void untilWhole(const path& file, const path& as);
  void expectContent(const path& file, const path& as);
  /// Starts or continues a file. Then it must become whole.
  void restore(const path& file, std::uint64_t backingSize, std::int32_t n = 4);
  /// Runs `action` on a file that was started, and is not whole before and after the action.
  /// Returns the file and the size of its backing file, from `least` to 1 GiB.
  std::pair<path, std::uint64_t> whileRestoring(const file_action& action, std::int32_t n = 4,
                                                std::uint64_t least = 64 << 20);
  /// The first failure that a query tells; S_OK if the file becomes whole. Nothing if it makes no
  /// progress: the filter waits for what is missing.
  std::optional<HRESULT> failureOf(const path& file);

  /// Logs `what`, and runs `call`, which owns all that it uses, in a thread. After `limit`, goes on
  /// waiting if `mayGoOn` says so. Otherwise abandons that thread and throws unanswered.
  template <typename Call>
  std::invoke_result_t<Call> withinLimit(
      const std::string& what, Call call,
      const std::function<bool()>& mayGoOn = [] { return false; }) {
    lines.push_back(what + ": ");
    std::packaged_task<std::invoke_result_t<Call>()> task(std::move(call));
    auto result = task.get_future();
    worker_thread worker(std::move(task));
    auto end = std::chrono::steady_clock::now() + limit;
    while (result.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
      if (isInterrupted) throw interruption{};
      if (std::chrono::steady_clock::now() < end) continue;
      if (!mayGoOn()) {
        lines.push_back(what + ": no answer");
        throw unanswered{{"an answer within the time limit"}};
      }
      end = std::chrono::steady_clock::now() + limit;
    }
    worker.join();
    return result.get();
  }

 private:
  const own_folder backingFolder;  // removed last, when no file is restored from it any more
  const own_folder ownFolder;
  const std::wstring portName;
  std::wstring prefix;  // of a backing file's path as the filter knows it
  std::chrono::seconds stallLimit;
  std::chrono::seconds waitLimit;  // the same where nothing can be restored
  std::vector<std::string> lines;
  std::string chosen;
  int files = 0;
};
