#pragma once

#include <windows.h>
// after <windows.h>:
#include <fltuser.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/file_handle.h"
#include "platform/wide_path.h"
#include "restore/nt_path.h"
#include "restore/tag_record.h"

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

inline void pauseFor(std::chrono::milliseconds time) {
  std::this_thread::sleep_for(time);
  if (isInterrupted) throw interruption{};
}

inline std::string hex(HRESULT result) {
  char text[11];
  std::snprintf(text, sizeof(text), "0x%08x", static_cast<unsigned>(result));
  return text;
}

inline void expect(bool holds, const std::string& expected) {
  if (!holds) throw violation{expected};
}
inline void expect(HRESULT came, HRESULT expected) { expect(came == expected, hex(expected)); }

[[noreturn]] inline void failWith(const std::string& what, const fs::path& file) {
  throw std::runtime_error(what + ' ' + zan::textOf(file));
}

inline std::string contentOf(const fs::path& file) {
  std::ostringstream content;
  content << std::ifstream(file, std::ios::binary).rdbuf();
  return std::move(content).str();
}

inline fs::path tagOn(fs::path file) { return file += ":" RESTORE_TAG_STREAM_NAME_A; }

inline std::string tagFor(const std::wstring& backingPath) {
  RestoreTagRecord tag{};
  const bool fits = buildTagRecord(toNtPath(backingPath), {RestoreStrategyKind::none, 0}, tag);
  if (!fits) failWith("too long for a tag:", zan::hostPath(backingPath));
  return {reinterpret_cast<const char*>(&tag), sizeof(tag)};
}

inline void write(const fs::path& file, const std::string& content) {
  if (!(std::ofstream(file, std::ios::binary) << content).flush()) failWith("cannot write", file);
}

/// As the tool does it: unshared, and in one write.
inline void writeTag(const fs::path& file, const std::string& tag, DWORD disposition = CREATE_NEW) {
  const std::wstring name = zan::widePath(file) + RESTORE_TAG_STREAM;
  const file_handle stream(CreateFileW(name.c_str(), GENERIC_ALL, 0, nullptr, disposition,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
  DWORD written = 0;
  WriteFile(stream.get(), tag.data(), static_cast<DWORD>(tag.size()), &written, nullptr);
  if (!stream.isOpen() || written != tag.size()) failWith("cannot write the tag of", file);
}

inline HANDLE openFile(const fs::path& file, DWORD attributes = FILE_ATTRIBUTE_NORMAL) {
  constexpr DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  const HANDLE opened = CreateFileW(zan::widePath(file).c_str(), GENERIC_READ, share, nullptr,
                                    OPEN_EXISTING, attributes, nullptr);
  if (opened == INVALID_HANDLE_VALUE) failWith("cannot open", file);
  return opened;
}

/// A new folder in another one. Removes it, with its content.
struct own_folder {
  explicit own_folder(const fs::path& parent) {
    for (int i = 1;
         !fs::create_directory(path = parent / ("zan_filter_check-" + std::to_string(i)));)
      ++i;
  }
  ~own_folder() {
    std::error_code error;
    for (int i = 0; i == 0 || (error && i < 50); ++i) {
      if (i > 0) std::this_thread::sleep_for(20ms);  // the filter may still use it
      fs::remove_all(path, error);
    }
    if (error) std::cerr << "zan_filter_check: could not remove " + zan::textOf(path) + '\n';
  }
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

/// Provides the new files and messages to try statements. Backing files are named by their size.
/// Anything that breaks the contract throws violation. Waits at most `limit` for an answer. Waits
/// six times `limit` for the first file that makes no progress, and `limit` for each later one.
class trial {
 public:
  using file_action = std::function<void(const fs::path&)>;

  /// Works in new folders in `parent` and in `backingParent`, which the filter calls `as`.
  trial(const fs::path& parent, const fs::path& backingParent, const std::wstring& as,
        std::wstring port, std::chrono::seconds longest)
      : folder(parent),
        limit(longest),
        backingFolder(backingParent),
        portName(std::move(port)),
        stallLimit(6 * longest) {
    const std::wstring separator = as.find(L'\\') == as.npos ? L"/" : L"\\";
    prefix = as + (as.ends_with(separator) ? L"" : separator);
    prefix += zan::widePath(backingFolder.path.filename()) + separator;
    fs::create_directory(backingFolder.path / "folder");
  }

  const own_folder folder;
  const std::chrono::seconds limit;
  std::wstring prefix;           // of a backing file's path as the filter knows it
  std::vector<std::string> log;  // what was sent, and what came
  std::string choice;            // what the filter does where the contract leaves it open

  /// Removes what the previous statement left.
  void clear() {
    log.clear();
    choice.clear();
    for (const auto& each : fs::directory_iterator(folder.path)) fs::remove(each.path());
  }

  /// A backing file of random bytes; created at its first use.
  fs::path backing(std::uint64_t size) const {
    fs::path file = backingFolder.path / std::to_string(size);
    if (fs::exists(file)) return file;
    std::string bytes(size, '\0');
    std::mt19937 random(static_cast<unsigned>(size));
    for (char& each : bytes) each = static_cast<char>(random() >> 9);
    write(file, bytes);
    return file;
  }
  std::string tagOf(std::uint64_t size) const {
    return tagFor(prefix + zan::widePath(backing(size).filename()));
  }

  /// The path of the next new file. newFile creates it, without or with a tag.
  fs::path nextFile() const { return folder.path / ("file" + std::to_string(files + 1)); }
  fs::path newFile() {
    fs::path file = nextFile();
    ++files;
    write(file, "");
    return file;
  }
  fs::path newFile(const std::string& tag) {
    fs::path file = newFile();
    writeTag(file, tag);
    return file;
  }
  fs::path newFile(std::uint64_t backingSize) { return newFile(tagOf(backingSize)); }

  void remove(const fs::path& file) const {
    fs::remove(file);
    std::error_code error;
    fs::remove(tagOn(file), error);  // if it is a file of its own
    const auto end = steady_clock::now() + limit;
    for (; fs::exists(file); pauseFor(20ms))
      expect(steady_clock::now() < end, "a deleted file is gone within the time limit");
  }

  static void rename(const fs::path& file, const fs::path& name) {
    fs::rename(file, name);
    if (fs::exists(tagOn(file))) fs::rename(tagOn(file), tagOn(name));
  }

  /// Connects with a context of `size` bytes, all `filling`. Returns the answer, and the port if it
  /// is open.
  std::pair<HRESULT, HANDLE> tryConnect(std::size_t size, char filling = 0) {
    log.push_back("connect with a context of size " + std::to_string(size) + ": ");
    const auto came = answerOf([name = portName, context = std::string(size, filling)] {
      HANDLE opened = INVALID_HANDLE_VALUE;
      const HRESULT result = FilterConnectCommunicationPort(
          name.c_str(), 0, context.empty() ? nullptr : context.data(),
          static_cast<WORD>(context.size()), nullptr, &opened);
      return std::pair(result, opened);
    });
    log.back() += hex(came.first);
    return came;
  }
  HANDLE connect(char filling = 0) {
    const auto [result, port] = tryConnect(RESTORE_FILTER_CONNECTION_CONTEXT_SIZE, filling);
    if (result < 0) throw unanswered{{"a connection"}};
    return port;
  }

  answer send(const fs::path& file, const request& what) {
    static constexpr const char* names[] = {"ping", "start", "stop", "progress query"};
    const file_handle port(connect());
    file_handle opened(openFile(file));
    const HANDLE handle = what.handle == INVALID_HANDLE_VALUE ? opened.get() : what.handle;
    const bool isStart = what.operation == StartAggressiveRestore;
    const RestoreStrategy strategy{RestoreStrategyKind(isStart ? 1 : what.unused),
                                   isStart ? what.n : static_cast<std::int32_t>(what.unused)};
    const ControlMessage message{
        reinterpret_cast<std::uintptr_t>(handle), {what.operation, strategy}, what.unused};
    const auto code = static_cast<std::uint32_t>(what.operation);
    log.push_back((code < 4 ? names[code] : "operation " + std::to_string(code)) + " of " +
                  (handle == opened.get() ? zan::textOf(file.filename()) : "another handle") +
                  (isStart ? ", n = " + std::to_string(what.n) : "") + ", " +
                  std::to_string(what.size) + " bytes: ");
    std::string bytes(std::max(what.size, sizeof(message)), '\0');
    std::memcpy(bytes.data(), &message, sizeof(message));
    bytes.resize(what.size);
    if (what.isClosed) opened.close();
    answer came =
        answerOf([port = port.get(), bytes, reply = std::string(what.room, '\0')]() mutable {
          DWORD returned = 0;
          const HRESULT result = FilterSendMessage(
              port, bytes.data(), static_cast<DWORD>(bytes.size()),
              reply.empty() ? nullptr : reply.data(), static_cast<DWORD>(reply.size()), &returned);
          reply.resize(std::min<std::size_t>(returned, reply.size()));
          return answer{result, reply};
        });
    log.back() += hex(came.result);
    if (what.room > 0) log.back() += ", reply of " + std::to_string(came.reply.size()) + " bytes";
    expect(came.result <= 0, "S_OK or a failure code: for the tool, only S_OK is a success");
    expect(came.result != HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE),
           "any answer but 0x80070006, which looks like a lost connection");
    return came;
  }
  HRESULT start(const fs::path& file, std::int32_t n = 4) {
    return send(file, {StartAggressiveRestore, n}).result;
  }
  /// Sends a message about a new file; expects E_INVALIDARG.
  void expectRefused(const request& what) { expect(send(newFile(), what).result, E_INVALIDARG); }

  ProgressInfo progress(const fs::path& file) {
    ProgressInfo info{};
    const answer came = send(file, {.operation = QueryProgress, .room = sizeof(info)});
    expect(came.result, S_OK);
    std::memcpy(&info, came.reply.data(), came.reply.size());
    log.back() += ", " + std::to_string(info.progress) + " of " + std::to_string(info.total);
    expect(info.progress <= info.total, "progress is at most total");
    return info;
  }

  /// Sends. If it need not succeed, reports the answer as the filter's choice.
  void tell(const fs::path& file, const request& what, bool mustSucceed) {
    const HRESULT result = send(file, what).result;
    choice = mustSucceed ? "" : hex(result);
    if (mustSucceed) expect(result, S_OK);
  }

  /// Starts or continues a file, and waits until it is whole.
  void restore(const fs::path& file, std::uint64_t backingSize, std::int32_t n = 4) {
    expect(start(file, n) == S_OK, "0x00000000 for the start");
    untilWhole(file, backingSize);
  }
  void untilWhole(const fs::path& file, std::uint64_t backingSize) {
    ProgressInfo last{};
    for (auto since = steady_clock::now();; pauseFor(5ms)) {
      const ProgressInfo now = progress(file);
      expect(now.progress >= last.progress, "progress does not fall");
      if (isWhole(now)) return expectContent(file, backingSize);
      if (now.progress != last.progress) since = steady_clock::now();
      last = now;
      if (steady_clock::now() - since <= stallLimit) continue;
      stallLimit = limit;  // once is enough to wait that long
      throw violation{"more progress, until both numbers are equal and not 0"};
    }
  }
  void expectContent(const fs::path& file, std::uint64_t backingSize) {
    const std::string is = contentOf(file);
    const std::string asked = contentOf(backing(backingSize));
    if (is == asked) return;
    const auto differ = std::mismatch(is.begin(), is.end(), asked.begin(), asked.end()).first;
    log.push_back("the file has " + std::to_string(is.size()) + " bytes, its backing file " +
                  std::to_string(backingSize) + "; the first difference is at byte " +
                  std::to_string(differ - is.begin()));
    throw violation{"the backing file's bytes when progress and total are equal"};
  }

  /// Runs `action` on a file that was started, and is not whole before and after the action.
  /// Returns the file and the size of its backing file.
  std::pair<fs::path, std::uint64_t> whileRestoring(const file_action& action) {
    for (std::uint64_t size = 64 << 20; size <= 1 << 30; size *= 4) {
      const fs::path file = newFile(size);
      expect(start(file) == S_OK, "0x00000000 for the start");
      if (!isWhole(progress(file))) {
        action(file);
        if (!isWhole(progress(file))) return {file, size};
      }
      remove(file);  // a larger one takes longer
    }
    throw untried{"the filter restores 1 GiB before the next message reaches it"};
  }

 private:
  // Runs `call`, which owns all that it uses, in a thread. Abandons that thread after `limit`.
  template <typename Call>
  std::invoke_result_t<Call> answerOf(Call call) {
    std::packaged_task<std::invoke_result_t<Call>()> task(std::move(call));
    auto result = task.get_future();
    std::thread worker(std::move(task));
    const auto end = steady_clock::now() + limit;
    while (result.wait_for(50ms) != std::future_status::ready) {
      if (!isInterrupted && steady_clock::now() < end) continue;
      worker.detach();
      if (isInterrupted) throw interruption{};
      log.back() += "no answer";
      throw unanswered{{"an answer within the time limit"}};
    }
    worker.join();
    return result.get();
  }

  static bool isWhole(const ProgressInfo& info) {
    return info.total != 0 && info.progress == info.total;
  }

  const own_folder backingFolder;
  const std::wstring portName;
  std::chrono::seconds stallLimit;
  int files = 0;
};
