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
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/file_handle.h"
#include "platform/wide_path.h"
#include "zan_restore_filter.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using std::chrono::steady_clock;
using zan::file_handle;
using enum ControlOperation;

// What ends a statement or the run early. A failure of the system is a std::exception.
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

inline void expect(bool holds, const std::string& expected) {
  if (!holds) throw violation{expected};
}
inline void expect(HRESULT came, HRESULT expected) { expect(came == expected, hex(expected)); }

/// At most `size` bytes of a file from `offset` on: those that can be read.
std::string contentOf(const fs::path& file, std::uint64_t offset = 0, std::size_t size = SIZE_MAX);
/// Writes into a file that exists.
void writeInto(const fs::path& file, std::uint64_t offset, const std::string& content);
HANDLE openFile(const fs::path& file, DWORD attributes = FILE_ATTRIBUTE_NORMAL);

/// A tag with this path, where a file has its tag, and how the tool writes it: unshared, and in one
/// write.
std::string tagFor(const std::wstring& backingPath);
inline fs::path tagOn(fs::path file) { return file += ":" RESTORE_TAG_STREAM_NAME_A; }
void writeTag(const fs::path& file, const std::string& tag, DWORD disposition = CREATE_NEW);

/// A new folder in another one. Removes it, with its content.
struct own_folder {
  explicit own_folder(const fs::path& parent);
  ~own_folder();
  own_folder(const own_folder&) = delete;
  own_folder& operator=(const own_folder&) = delete;
  fs::path path;
};

/// A message about a file, with the tool's values unless changed, and its answer.
struct request {
  ControlOperation operation = Ping;
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

/// What a statement is tried with: files, messages about them, and waiting. Anything that breaks
/// the contract throws violation. Waits at most `limit` for an answer, six times `limit` for the
/// first file that makes no progress, and `limit` for each later one.
class trial {
 public:
  using file_action = std::function<void(const fs::path& file, std::uint64_t backingSize)>;

  /// Works in new folders in `parent` and in `backingParent`, which the filter calls `as`.
  trial(const fs::path& parent, const fs::path& backingParent, const std::wstring& as,
        std::wstring port, std::chrono::seconds longest);
  const std::chrono::seconds limit;

  /// Begins another statement: removes what the previous one left.
  void clear();
  /// What was sent and came; what the filter does where the contract leaves it open.
  const std::vector<std::string>& log() const { return lines; }
  const std::string& choice() const { return chosen; }
  void choose(const std::string& what) { chosen = what; }

  // Files. newFile() creates nextFile(), without or with a tag.
  const fs::path& folder() const { return ownFolder.path; }
  fs::path nextFile() const { return folder() / ("file" + std::to_string(files + 1)); }
  fs::path newFile();
  fs::path newFile(const std::string& tag);
  fs::path newFile(std::uint64_t backingSize) { return newFile(tagOf(backingSize)); }
  void remove(const fs::path& file) const;
  static void rename(const fs::path& file, const fs::path& name);  // with its tag

  /// The path of a backing file as the filter knows it.
  std::wstring backingPath(const std::wstring& name) const { return prefix + name; }
  /// A backing file of random bytes, named by its size. Made anew if it was removed or cut.
  fs::path backing(std::uint64_t size) const;
  std::string tagOf(std::uint64_t backingSize) const;

  // Messages.
  /// Connects with a context of `size` bytes, all `filling`. Returns the answer and the port.
  std::pair<HRESULT, HANDLE> tryConnect(std::size_t size, char filling = 0);
  HANDLE connect(char filling = 0);
  answer send(const fs::path& file, const request& what);
  HRESULT start(const fs::path& file, std::int32_t n = 4);
  ProgressInfo progress(const fs::path& file);
  HRESULT query(const fs::path& file, ProgressInfo& info);  // the same, but may fail
  /// Stops a file when a quarter of it is restored, or after 200 ms. Returns the progress before.
  ProgressInfo stopLater(const fs::path& file);
  /// Sends a message about a new file; expects E_INVALIDARG.
  void expectRefused(const request& what) { expect(send(newFile(), what).result, E_INVALIDARG); }

  // Restorations.
  /// Waits until the file is whole; then it must have the content of another file.
  void untilWhole(const fs::path& file, const fs::path& as);
  void expectContent(const fs::path& file, const fs::path& as);
  /// Starts or continues a file. Then it must become whole.
  void restore(const fs::path& file, std::uint64_t backingSize, std::int32_t n = 4);
  /// Runs `action` on a file that was started, and is not whole before and after the action.
  /// Returns the file and the size of its backing file.
  std::pair<fs::path, std::uint64_t> whileRestoring(const file_action& action, std::int32_t n = 4);
  /// The first failure that a query tells, within `limit`; S_OK if the file becomes whole.
  HRESULT failureOf(const fs::path& file);

  /// Logs `what`, and runs `call`, which owns all that it uses, in a thread. Abandons that thread
  /// after `limit`, and throws unanswered.
  template <typename Call>
  std::invoke_result_t<Call> withinLimit(const std::string& what, Call call) {
    lines.push_back(what + ": ");
    std::packaged_task<std::invoke_result_t<Call>()> task(std::move(call));
    auto result = task.get_future();
    std::thread worker(std::move(task));
    const auto end = steady_clock::now() + limit;
    while (result.wait_for(50ms) != std::future_status::ready) {
      if (!isInterrupted && steady_clock::now() < end) continue;
      worker.detach();
      if (isInterrupted) throw interruption{};
      lines.back() += "no answer";
      throw unanswered{{"an answer within the time limit"}};
    }
    worker.join();
    return result.get();
  }

 private:
  const own_folder ownFolder;
  const own_folder backingFolder;
  const std::wstring portName;
  std::wstring prefix;  // of a backing file's path as the filter knows it
  std::chrono::seconds stallLimit;
  std::vector<std::string> lines;
  std::string chosen;
  int files = 0;
};
