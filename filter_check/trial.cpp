#include "filter_check/trial.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <random>
#include <stdexcept>

#include "filter_check/files.h"
#include "platform/file_handle.h"
#include "platform/wide_path.h"
#include "restore/nt_path.h"
#include "restore/tag_record.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using std::chrono::steady_clock;
using zan::file_handle;
using enum ControlOperation;

void pauseFor(std::chrono::milliseconds time) {
  std::this_thread::sleep_for(time);
  if (isInterrupted) throw interruption{};
}

std::string hex(HRESULT result) {
  char text[11];
  std::snprintf(text, sizeof(text), "0x%08x", static_cast<unsigned>(result));
  return text;
}

bool isEnd(const ProgressInfo& info) { return info.total != 0 && info.progress == info.total; }

std::string tagFor(const std::wstring& backingPath) {
  RestoreTagRecord tag{};
  if (!buildTagRecord(toNtPath(backingPath), {RestoreStrategyKind::none, 0}, tag)) {
    throw std::runtime_error("too long for a tag: " + zan::textOf(zan::hostPath(backingPath)));
  }
  return {reinterpret_cast<const char*>(&tag), sizeof(tag)};
}

own_folder::own_folder(const fs::path& parent) {
  std::error_code error;
  int i = 1;
  do path = parent / ("zan_filter_check-" + std::to_string(i++));
  while (!fs::create_directory(path, error) && !error);
  if (error)
    throw std::runtime_error("cannot create " + zan::textOf(path) + ": " + error.message());
}

own_folder::~own_folder() {
  std::error_code error;
  fs::remove_all(path, error);
  for (int i = 0; error && i < 200; fs::remove_all(path, error), ++i) {
    std::this_thread::sleep_for(50ms);  // the filter may still use it
  }
  if (error) std::cerr << "zan_filter_check: could not remove " + zan::textOf(path) + '\n';
}

trial::trial(const fs::path& parent, const fs::path& backingParent, const std::wstring& as,
             std::wstring port, std::chrono::seconds longest)
    : limit(longest),
      backingFolder(backingParent),
      ownFolder(parent),
      portName(std::move(port)),
      stallLimit(6 * longest),
      waitLimit(6 * longest) {
  const std::wstring separator = as.find(L'\\') == as.npos ? L"/" : L"\\";
  prefix = as + (as.ends_with(separator) ? L"" : separator);
  prefix += zan::widePath(backingFolder.path.filename()) + separator;
  std::error_code error;
  fs::create_directory(backingFolder.path / "folder", error);
}

void trial::clear() {
  lines.clear();
  chosen.clear();
  std::error_code error;
  for (const auto& each : fs::directory_iterator(folder(), error)) {
    fs::remove_all(each.path(), error);
  }
}

fs::path trial::newFile() {
  fs::path file = nextFile();
  ++files;
  writeFile(file, "");
  return file;
}

fs::path trial::newFile(const std::string& tag) {
  fs::path file = newFile();
  writeTag(file, tag);
  return file;
}

void trial::remove(const fs::path& file) {
  const auto end = steady_clock::now() + 1s;  // a scanner may hold it for a moment
  while (!DeleteFileW(zan::widePath(file).c_str())) {
    if (steady_clock::now() > end) throw system_failure("DeleteFileW", file);
    pauseFor(20ms);
  }
  DeleteFileW(zan::widePath(tagOn(file)).c_str());  // where a stream is a file of its own
}

void trial::replace(const fs::path& file, const std::string& tag) const {
  remove(file);
  for (const auto end = steady_clock::now() + limit;; pauseFor(20ms)) {
    try {
      const file_handle created(openFile(file, GENERIC_WRITE, CREATE_NEW));
      break;
    } catch (const system_failure&) {
      expect(steady_clock::now() < end, "a deleted file is gone within the time limit");
    }
  }
  writeTag(file, tag);
}

void trial::rename(const fs::path& file, const fs::path& name) {
  const std::string tag = contentOf(tagOn(file));
  std::error_code error;
  fs::rename(file, name, error);
  if (error)
    throw std::runtime_error("rename of " + zan::textOf(file.filename()) + ": " + error.message());
  if (!DeleteFileW(zan::widePath(tagOn(file)).c_str())) return;
  writeTag(name, tag);  // a stream that is a file of its own stays behind
}

fs::path trial::backing(std::uint64_t size) const {
  fs::path file = backingFolder.path / std::to_string(size);
  std::error_code error;
  if (fs::exists(file, error) && sizeOf(file) == size) return file;
  std::string bytes(size, '\0');
  std::mt19937 random(static_cast<unsigned>(size));
  for (char& each : bytes) each = static_cast<char>(random() >> 9);
  writeFile(file, bytes);
  return file;
}

std::string trial::tagOf(std::uint64_t backingSize) const {
  return tagFor(backingPath(zan::widePath(backing(backingSize).filename())));
}

std::pair<HRESULT, HANDLE> trial::tryConnect(std::size_t size, char filling) {
  const std::string what = "connect with a context of size " + std::to_string(size);
  const auto came = withinLimit(what, [name = portName, context = std::string(size, filling)] {
    HANDLE opened = INVALID_HANDLE_VALUE;
    const HRESULT result =
        FilterConnectCommunicationPort(name.c_str(), 0, context.empty() ? nullptr : context.data(),
                                       static_cast<WORD>(context.size()), nullptr, &opened);
    return std::pair(result, opened);
  });
  lines.back() += hex(came.first);
  return came;
}

HANDLE trial::connect(char filling) {
  const auto [result, port] = tryConnect(RESTORE_FILTER_CONNECTION_CONTEXT_SIZE, filling);
  if (result < 0) throw unanswered{{"a connection"}};
  return port;
}

answer trial::send(const fs::path& file, const request& what) {
  const file_handle port(connect());
  file_handle opened(openFile(file));
  const HANDLE handle = what.handle == INVALID_HANDLE_VALUE ? opened.get() : what.handle;
  const bool isStart = what.operation == StartAggressiveRestore;
  const RestoreStrategy strategy{RestoreStrategyKind(isStart ? 1 : what.unused),
                                 isStart ? what.n : static_cast<std::int32_t>(what.unused)};
  const ControlMessage message{
      reinterpret_cast<std::uintptr_t>(handle), {what.operation, strategy}, what.unused};
  const auto code = static_cast<std::uint32_t>(what.operation);
  const std::string text =
      (code < std::size(operationNames) ? operationNames[code]
                                        : "operation " + std::to_string(code)) +
      " of " + (handle == opened.get() ? zan::textOf(file.filename()) : "another handle") +
      (isStart ? ", n = " + std::to_string(what.n) : "") + ", " + std::to_string(what.size) +
      " bytes";
  std::string bytes(std::max(what.size, sizeof(message)), '\0');
  std::memcpy(bytes.data(), &message, sizeof(message));
  bytes.resize(what.size);
  if (what.isClosed) opened.close();
  answer came =
      withinLimit(text, [port = port.get(), bytes, reply = std::string(what.room, '\0')]() mutable {
        DWORD returned = 0;
        const HRESULT result = FilterSendMessage(
            port, bytes.data(), static_cast<DWORD>(bytes.size()),
            reply.empty() ? nullptr : reply.data(), static_cast<DWORD>(reply.size()), &returned);
        reply.resize(std::min<std::size_t>(returned, reply.size()));
        return answer{result, reply};
      });
  lines.back() += hex(came.result);
  if (what.room > 0) lines.back() += ", reply of " + std::to_string(came.reply.size()) + " bytes";
  expect(came.result <= 0, "S_OK or a failure code: for the tool, only S_OK is a success");
  expect(came.result != HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE),
         "any answer but 0x80070006, which looks like a lost connection");
  return came;
}

HRESULT trial::tryStart(const fs::path& file, std::int32_t n) {
  return send(file, {StartAggressiveRestore, n}).result;
}

void trial::start(const fs::path& file, std::int32_t n, HRESULT expected) {
  const auto end = steady_clock::now() + limit;
  for (; tryStart(file, n) != expected; pauseFor(20ms)) {
    expect(steady_clock::now() < end, hex(expected) + " for a start within the time limit");
    ProgressInfo now;
    if (query(file, now) == S_OK && isEnd(now)) return;
  }
}

HRESULT trial::query(const fs::path& file, ProgressInfo& info) {
  info = {};
  const answer came = send(file, {.operation = QueryProgress, .room = sizeof(info)});
  if (came.result != S_OK) return came.result;
  std::memcpy(&info, came.reply.data(), came.reply.size());
  lines.back() += ", " + std::to_string(info.progress) + " of " + std::to_string(info.total);
  expect(info.progress <= info.total, "progress is at most total");
  return S_OK;
}

ProgressInfo trial::progress(const fs::path& file) {
  ProgressInfo info;
  expectResult(query(file, info));
  return info;
}

void trial::stop(const fs::path& file) {
  const HRESULT result = send(file, {StopAggressiveRestore}).result;
  ProgressInfo now;
  if (result != S_OK && query(file, now) == S_OK && isEnd(now)) return;
  expect(result == S_OK, "0x00000000 for the stop");
}

ProgressInfo trial::stopLater(const fs::path& file) {
  const auto end = steady_clock::now() + 200ms;
  ProgressInfo info = progress(file);
  while (info.progress < info.total / 4 && steady_clock::now() < end) info = progress(file);
  stop(file);
  return info;
}

void trial::untilWhole(const fs::path& file, const fs::path& as) {
  ProgressInfo last{};
  for (auto since = steady_clock::now();; pauseFor(5ms)) {
    const ProgressInfo now = progress(file);
    expect(now.progress >= last.progress, "progress does not fall");
    if (isEnd(now)) return expectContent(file, as);
    if (now.progress != last.progress) since = steady_clock::now();
    last = now;
    if (steady_clock::now() - since <= stallLimit) continue;
    stallLimit = limit;  // once is enough to wait that long
    throw violation{"more progress, until both numbers are equal and not 0"};
  }
}

void trial::expectContent(const fs::path& file, const fs::path& as) {
  const std::string is = contentOf(file);
  const std::string asked = contentOf(as);
  if (is == asked) return;
  const auto differ = std::mismatch(is.begin(), is.end(), asked.begin(), asked.end()).first;
  lines.push_back("the file has " + std::to_string(is.size()) +
                  " bytes, the expected content has " + std::to_string(asked.size()) +
                  "; the first difference is at byte " + std::to_string(differ - is.begin()));
  throw violation{"the backing file's bytes, except where a program has written"};
}

void trial::restore(const fs::path& file, std::uint64_t backingSize, std::int32_t n) {
  start(file, n);
  untilWhole(file, backing(backingSize));
}

std::pair<fs::path, std::uint64_t> trial::whileRestoring(const file_action& action, std::int32_t n,
                                                         std::uint64_t least) {
  for (std::uint64_t size = least; size <= 1 << 30; size *= 4) {
    std::error_code error;
    const bool hasRoom = fs::space(backingFolder.path / "", error).available > size + (64 << 20) &&
                         fs::space(folder() / "", error).available > size + (64 << 20);
    if (size > least && !hasRoom) throw untried{noRoom};
    const fs::path file = newFile(size);
    start(file, n);
    if (!isEnd(progress(file))) {
      action(file, size);
      ProgressInfo after;
      if (query(file, after) != S_OK || !isEnd(after)) return {file, size};
    }
    remove(file);  // a larger one takes longer
  }
  throw untried{"the filter restores 1 GiB too fast"};
}

std::optional<HRESULT> trial::failureOf(const fs::path& file) {
  ProgressInfo last{};
  for (auto since = steady_clock::now(); steady_clock::now() - since <= waitLimit; pauseFor(20ms)) {
    ProgressInfo now;
    const HRESULT result = query(file, now);
    if (result != S_OK || isEnd(now)) return result;
    if (now.progress != last.progress) since = steady_clock::now();
    last = now;
  }
  waitLimit = limit;
  return std::nullopt;
}
