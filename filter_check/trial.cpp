#include "filter_check/trial.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <random>
#include <stdexcept>

#include "restore/nt_path.h"
#include "restore/tag_record.h"

namespace {

[[noreturn]] void failWith(const std::string& what, const fs::path& file) {
  throw std::runtime_error(what + ' ' + zan::textOf(file));
}

void write(const fs::path& file, const std::string& content) {
  if (!(std::ofstream(file, std::ios::binary) << content).flush()) failWith("cannot write", file);
}

bool isEnd(const ProgressInfo& info) { return info.total != 0 && info.progress == info.total; }

}  // namespace

void pauseFor(std::chrono::milliseconds time) {
  std::this_thread::sleep_for(time);
  if (isInterrupted) throw interruption{};
}

std::string hex(HRESULT result) {
  char text[11];
  std::snprintf(text, sizeof(text), "0x%08x", static_cast<unsigned>(result));
  return text;
}

std::string contentOf(const fs::path& file, std::uint64_t offset, std::size_t size) {
  std::error_code error;
  const std::uintmax_t end = fs::file_size(file, error);
  std::string bytes(error || end < offset ? 0 : std::min(size, end - offset), '\0');
  std::ifstream stream(file, std::ios::binary);
  stream.seekg(static_cast<std::streamoff>(offset));
  stream.read(bytes.data(), std::ssize(bytes));
  bytes.resize(static_cast<std::size_t>(stream.gcount()));
  return bytes;
}

void writeInto(const fs::path& file, std::uint64_t offset, const std::string& content) {
  std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
  if (!(stream.seekp(static_cast<std::streamoff>(offset)) << content).flush()) {
    failWith("cannot write into", file);
  }
}

HANDLE openFile(const fs::path& file, DWORD attributes) {
  constexpr DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  const HANDLE opened = CreateFileW(zan::widePath(file).c_str(), GENERIC_READ, share, nullptr,
                                    OPEN_EXISTING, attributes, nullptr);
  if (opened == INVALID_HANDLE_VALUE) failWith("cannot open", file);
  return opened;
}

std::string tagFor(const std::wstring& backingPath) {
  RestoreTagRecord tag{};
  const bool fits = buildTagRecord(toNtPath(backingPath), {RestoreStrategyKind::none, 0}, tag);
  if (!fits) failWith("too long for a tag:", zan::hostPath(backingPath));
  return {reinterpret_cast<const char*>(&tag), sizeof(tag)};
}

void writeTag(const fs::path& file, const std::string& tag, DWORD disposition) {
  const std::wstring name = zan::widePath(file) + RESTORE_TAG_STREAM;
  const file_handle stream(CreateFileW(name.c_str(), GENERIC_ALL, 0, nullptr, disposition,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
  DWORD written = 0;
  WriteFile(stream.get(), tag.data(), static_cast<DWORD>(tag.size()), &written, nullptr);
  if (!stream.isOpen() || written != tag.size()) failWith("cannot write the tag of", file);
}

own_folder::own_folder(const fs::path& parent) {
  int i = 1;
  do path = parent / ("zan_filter_check-" + std::to_string(i++));
  while (!fs::create_directory(path));
}

own_folder::~own_folder() {
  std::error_code error;
  fs::remove_all(path, error);
  for (int i = 0; error && i < 50; fs::remove_all(path, error), ++i) {
    std::this_thread::sleep_for(20ms);  // the filter may still use it
  }
  if (error) std::cerr << "zan_filter_check: could not remove " + zan::textOf(path) + '\n';
}

trial::trial(const fs::path& parent, const fs::path& backingParent, const std::wstring& as,
             std::wstring port, std::chrono::seconds longest)
    : limit(longest),
      ownFolder(parent),
      backingFolder(backingParent),
      portName(std::move(port)),
      stallLimit(6 * longest) {
  const std::wstring separator = as.find(L'\\') == as.npos ? L"/" : L"\\";
  prefix = as + (as.ends_with(separator) ? L"" : separator);
  prefix += zan::widePath(backingFolder.path.filename()) + separator;
  fs::create_directory(backingFolder.path / "folder");
}

void trial::clear() {
  lines.clear();
  chosen.clear();
  for (const auto& each : fs::directory_iterator(folder())) fs::remove(each.path());
}

fs::path trial::backing(std::uint64_t size) const {
  fs::path file = backingFolder.path / std::to_string(size);
  if (fs::exists(file) && fs::file_size(file) == size) return file;
  std::string bytes(size, '\0');
  std::mt19937 random(static_cast<unsigned>(size));
  for (char& each : bytes) each = static_cast<char>(random() >> 9);
  write(file, bytes);
  return file;
}

std::string trial::tagOf(std::uint64_t backingSize) const {
  return tagFor(backingPath(zan::widePath(backing(backingSize).filename())));
}

fs::path trial::newFile() {
  fs::path file = nextFile();
  ++files;
  write(file, "");
  return file;
}

fs::path trial::newFile(const std::string& tag) {
  fs::path file = newFile();
  writeTag(file, tag);
  return file;
}

void trial::remove(const fs::path& file) const {
  fs::remove(file);
  std::error_code error;
  fs::remove(tagOn(file), error);  // if it is a file of its own
  const auto end = steady_clock::now() + limit;
  for (; fs::exists(file); pauseFor(20ms)) {
    expect(steady_clock::now() < end, "a deleted file is gone within the time limit");
  }
}

void trial::rename(const fs::path& file, const fs::path& name) {
  fs::rename(file, name);
  if (fs::exists(tagOn(file))) fs::rename(tagOn(file), tagOn(name));
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
  const std::string text =
      (code < 4 ? names[code] : "operation " + std::to_string(code)) + " of " +
      (handle == opened.get() ? zan::textOf(file.filename()) : "another handle") +
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

HRESULT trial::start(const fs::path& file, std::int32_t n) {
  return send(file, {StartAggressiveRestore, n}).result;
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
  expect(query(file, info), S_OK);
  return info;
}

ProgressInfo trial::stopLater(const fs::path& file) {
  const auto end = steady_clock::now() + 200ms;
  ProgressInfo info = progress(file);
  while (info.progress < info.total / 4 && steady_clock::now() < end) info = progress(file);
  expect(send(file, {StopAggressiveRestore}).result, S_OK);
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
  expect(start(file, n) == S_OK, "0x00000000 for the start");
  untilWhole(file, backing(backingSize));
}

std::pair<fs::path, std::uint64_t> trial::whileRestoring(const file_action& action,
                                                         std::int32_t n) {
  for (std::uint64_t size = 64 << 20; size <= 1 << 30; size *= 4) {
    const fs::path file = newFile(size);
    expect(start(file, n) == S_OK, "0x00000000 for the start");
    if (!isEnd(progress(file))) {
      action(file, size);
      ProgressInfo after;
      if (query(file, after) != S_OK || !isEnd(after)) return {file, size};
    }
    remove(file);  // a larger one takes longer
  }
  throw untried{"the filter restores 1 GiB before the next message reaches it"};
}

HRESULT trial::failureOf(const fs::path& file) {
  for (const auto end = steady_clock::now() + limit;; pauseFor(20ms)) {
    ProgressInfo info;
    const HRESULT result = query(file, info);
    if (result != S_OK || isEnd(info)) return result;
    expect(steady_clock::now() < end, "a failure within the time limit");
  }
}
