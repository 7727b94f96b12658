#include "filter_check/statements.h"

#include <algorithm>
#include <climits>
#include <list>
#include <map>

#include "filter_check/files.h"
#include "platform/file_handle.h"
#include "platform/wide_path.h"
#include "restore/nt_path.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using std::chrono::steady_clock;
using zan::file_handle;
using enum ControlOperation;

namespace {

constexpr std::uint64_t mebibyte = 1024 * 1024;
constexpr std::uint64_t severalChunks = 3 * mebibyte + 5;

// What is tried in one way with several values: the text of each, and the value.
template <typename Value>
using rows = std::vector<std::pair<std::string, Value>>;

template <typename Value = std::size_t>
rows<Value> numbers(const std::vector<Value>& values) {
  rows<Value> each;
  for (const Value value : values) each.emplace_back(std::to_string(value), value);
  return each;
}

// 16 bits of a tag.
struct tag_change {
  std::size_t offset;
  int value;
};

// As many programs read the ends of as many equal parts of a file.
struct reading {
  std::size_t programs;
  std::size_t bytes;
};

// The tag of a small file, with a change.
std::string tagWith(const trial& t, const tag_change& change) {
  const char bytes[] = {static_cast<char>(change.value), static_cast<char>(change.value >> 8)};
  return t.tagOf(5000).replace(change.offset, 2, bytes, 2);
}

fs::path newlyRestored(trial& t, std::uint64_t size) {
  fs::path file = t.newFile(size);
  t.restore(file, size);
  return file;
}

// A file that is being restored, or was stopped a moment after its start, and the size of its
// backing file.
std::pair<fs::path, std::uint64_t> unfinished(trial& t, bool isStopped) {
  return t.whileRestoring([&](auto& file, auto) {
    if (isStopped) t.stopLater(file);
  });
}

// The same, of a filter that serves reads.
std::pair<fs::path, std::uint64_t> readable(trial& t, bool isStopped) {
  auto found = unfinished(t, isStopped);
  expect(sizeOf(found.first) == found.second, "the backing file's size (or use --skip-reads)");
  return found;
}

// A filter at its limit takes more files when others are whole.
void restoreAtOnce(trial& t, std::size_t count) {
  std::list<std::pair<fs::path, std::uint64_t>> begun;
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint64_t size = 1 + i % 10 * 200000;
    const fs::path file = t.newFile(size);
    while (!begun.empty() && t.tryStart(file) != S_OK) {
      t.untilWhole(begun.front().first, t.backing(begun.front().second));
      begun.pop_front();
    }
    if (begun.empty()) t.start(file);
    begun.emplace_back(file, size);
  }
  for (const auto& [file, size] : begun) t.untilWhole(file, t.backing(size));
}

// A filter that serves reads may fail them where there is nothing to read.
void expectEmpty(const fs::path& file) {
  std::string content;
  try {
    content = contentOf(file);
  } catch (const system_failure&) {
  }
  expect(content.empty(), "the file stays empty");
}

// A start that must be refused, with a code of the filter's choice.
void expectRefusal(trial& t, const fs::path& file) {
  const HRESULT result = t.tryStart(file);
  expect(result != S_OK, "the start is refused");
  t.choose(hex(result));
  expectEmpty(file);
}

// Nothing can be restored. The start says so, a progress query after it, or the file makes no
// progress. Returns which.
std::string expectFailure(trial& t, const fs::path& file) {
  std::string how = "the start answers ";
  std::optional<HRESULT> result = t.tryStart(file);
  if (result == S_OK) {
    result = t.failureOf(file);
    how = "a progress query after the start answers ";
  }
  expect(result != S_OK, "the start fails, or a progress query after it");
  return result ? how + hex(*result) : "the file makes no progress";
}
void expectEmptyFailure(trial& t, const fs::path& file) {
  t.choose(expectFailure(t, file));
  expectEmpty(file);
}

void expectUnchanged(const fs::path& file) {
  const std::string content = contentOf(file);
  const auto end = steady_clock::now() + 1s;
  while (steady_clock::now() < end) {
    pauseFor(10ms);
    expect(contentOf(file) == content, "the same content for one second");
  }
}

// A filter may hold a read as long as the restoration goes on.
void expectReads(trial& t, bool isStopped, const std::string& what, const reading& asked) {
  const auto [file, whole] = readable(t, isStopped);
  const auto readAll = [=, local = file, size = whole, backing = t.backing(whole)] {
    std::vector<std::future<bool>> same;
    std::vector<std::jthread> programs;
    for (std::size_t i = 1; i <= asked.programs; ++i) {
      const std::uint64_t offset = size / asked.programs * i - asked.bytes;
      std::packaged_task<bool()> read([=] {
        return contentOf(local, offset, asked.bytes) == contentOf(backing, offset, asked.bytes);
      });
      same.push_back(read.get_future());
      programs.emplace_back(std::move(read));
    }
    return std::all_of(same.begin(), same.end(), [](auto& each) { return each.get(); });
  };
  std::uint64_t last = 0;
  const auto goesOn = [&, local = file] {
    ProgressInfo now;
    const bool isRead = !isStopped && t.query(local, now) == S_OK;
    return isRead && now.progress > std::exchange(last, now.progress);
  };
  expect(t.withinLimit("read " + what, readAll, goesOn), "the backing file's bytes");
}

double secondsOfStart(trial& t, std::uint64_t size) {
  const fs::path file = t.newFile(size);
  const auto begin = steady_clock::now();
  t.start(file);
  return std::chrono::duration<double>(steady_clock::now() - begin).count();
}

}  // namespace

std::vector<statement> contractStatements(std::ptrdiff_t instances, bool isOneVolume,
                                          bool skipsReads) {
  const char* heading = "Registration";
  std::vector<statement> all;
  const auto add = [&](const std::string& text, auto check) {
    all.push_back({heading, text, std::move(check)});
  };
  const auto addEach = [&](const std::string& text, const auto& rows, auto check) {
    for (const auto& [shown, value] : rows) {
      std::string line = text;
      add(line.replace(line.find("{}"), 2, shown), [check, v = value](trial& t) { check(t, v); });
    }
  };
  const auto addPing = [&](const char* text) {
    add(text, [](auto& t) { expectResult(t.send(t.newFile(), {}).result); });
  };

  add("zan_restore_filter has an instance on the volume", [=](auto&) {
    expect(instances > 0, "an instance (Windows lists instances only in an elevated console)");
  });
  all.back().advice = "";
  add("zan_restore_filter has no second instance on the volume",
      [=](auto&) { expect(instances == 1, "one instance per volume"); });
  add("the port named after the volume id accepts a connection",
      [](auto& t) { const file_handle port(t.connect()); });
  all.back().advice = "";
  addPing("a ping succeeds");
  add("a file is restored", [](auto& t) { newlyRestored(t, 5000); });
  all.back().advice =
      ". Does the filter reach BACKING_FOLDER as AS, which must be no mapped drive? Does it obey "
      "tags of this user?";

  heading = "The connection";
  addEach("a context of size {} is refused", numbers({0, 39, 41, 4096}), [](auto& t, auto size) {
    const auto [result, opened] = t.tryConnect(size);
    const file_handle port(opened);
    expectResult(result, E_INVALIDARG);
  });
  add("the content of the context means nothing",
      [](auto& t) { const file_handle port(t.connect('\xFF')); });
  add("9 connections at the same time are served", [](auto& t) {
    std::list<file_handle> ports;  // the ninth is that of the ping
    for (int i = 1; i < 9; ++i) ports.emplace_back(t.connect());
    expectResult(t.send(t.newFile(), {}).result);
  });
  add("1000 connections one after another are served", [](auto& t) {
    for (int i = 0; i < 1000; ++i) const file_handle port(t.connect());
    expectResult(t.send(t.newFile(), {}).result);
  });

  heading = "The message";
  add("fields that the operation does not use are ignored",
      [](auto& t) { expectResult(t.send(t.newFile(), {.unused = UINT32_MAX}).result); });
  add("the handle's value is not used after the answer", [](auto& t) {
    const fs::path file = t.newFile(severalChunks);
    const fs::path other = t.newFile();
    t.start(file);
    std::list<file_handle> sameNumbers;
    for (int i = 0; i < 8; ++i) sameNumbers.emplace_back(openFile(other));
    t.untilWhole(file, t.backing(severalChunks));
    expect(contentOf(other).empty(), "a file whose handle has the same value stays empty");
  });

  heading = "Checks";
  addEach("a message of size {} is refused", numbers({0, 1, 8, 12, 20, 23, 25, 28, 48, 4096}),
          [](auto& t, auto size) { t.expectRefused({.size = size}); });
  constexpr std::size_t operations = std::size(operationNames);
  addEach("operation {} is refused", numbers({operations, operations + 1, 0x80000000, UINT32_MAX}),
          [](auto& t, auto code) { t.expectRefused({static_cast<ControlOperation>(code)}); });
  addEach("a handle value with bit {} set is refused", numbers({16, 40}), [](auto& t, auto bit) {
    const file_handle file(openFile(t.newFile()));
    const auto handle = reinterpret_cast<std::uintptr_t>(file.get()) | 1ULL << bit;
    t.expectRefused({.handle = reinterpret_cast<HANDLE>(handle)});
  });
  add("a closed handle is refused", [](auto& t) { t.expectRefused({.isClosed = true}); });
  add("a handle of a folder is refused", [](auto& t) {
    const file_handle folder(
        openFile(t.folder(), GENERIC_READ, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS));
    const HRESULT result = t.send(t.newFile(), {.handle = folder.get()}).result;
    expect(result == E_INVALIDARG || result == HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED),
           "0x80070057 or 0x80070005");
    t.choose(hex(result));
  });
  add("a handle of a pipe is refused", [](auto& t) {
    HANDLE ends[2] = {INVALID_HANDLE_VALUE, INVALID_HANDLE_VALUE};
    if (!CreatePipe(&ends[0], &ends[1], nullptr, 0)) throw system_failure("CreatePipe", {});
    const file_handle reading(ends[0]);
    const file_handle writing(ends[1]);
    t.expectRefused({.handle = ends[0]});
  });
  add("a handle of a connection to the port is refused", [](auto& t) {
    const file_handle port(t.connect());
    t.expectRefused({.handle = port.get()});
  });
  add("a handle of a file on another volume is refused", [=](auto& t) {
    if (isOneVolume) throw untried{"both folders are on one volume"};
    const file_handle other(openFile(t.backing(1)));
    t.expectRefused({.handle = other.get()});
  });
  add("a tag whose backing file is the local file is refused", [](auto& t) {
    const fs::path file = t.nextFile();
    const std::wstring path = zan::widePath(fs::absolute(file));
    t.start(t.newFile(tagFor(path)), 4, E_INVALIDARG);
    expectEmpty(file);
  });
  addEach("a tag of size {} is refused", numbers({0, 36, 16375, 16377}), [](auto& t, auto size) {
    std::string tag = t.tagOf(5000);
    tag.resize(size);
    expectRefusal(t, t.newFile(tag));
  });
  addEach("a tag with {} is refused",
          rows<tag_change>{
              {"a wrong tag field", {offsetof(RestoreTagRecord, tag), 0x52}},
              {"a wrong dataLength", {offsetof(RestoreTagRecord, dataLength), 0x3FE1}},
              {"a wrong guid", {offsetof(RestoreTagRecord, guid) + 14, 0}},
              {"pathOffset 0", {offsetof(RestoreTagRecord, pathOffset), 0}},
              {"pathOffset 9", {offsetof(RestoreTagRecord, pathOffset), 9}},
              {"pathOffset 0xffff", {offsetof(RestoreTagRecord, pathOffset), 0xFFFF}},
              {"a pathLength that includes the trailer",
               {offsetof(RestoreTagRecord, pathLength), 16340}},
              {"a pathLength beyond the tag", {offsetof(RestoreTagRecord, pathLength), 0x8000}}},
          [](auto& t, auto& change) { expectRefusal(t, t.newFile(tagWith(t, change))); });
  add("a tag with an odd pathLength is refused", [](auto& t) {
    std::string tag = t.tagOf(5000);
    ++tag[offsetof(RestoreTagRecord, pathLength)];
    expectRefusal(t, t.newFile(tag));
  });
  addEach("a tag with {} restores the file",
          rows<tag_change>{
              {"reserved 1", {offsetof(RestoreTagRecord, reserved), 1}},
              {"trailer 1", {offsetof(RestoreTagRecord, trailer), 1}},
              {"something after its path", {offsetof(RestoreTagRecord, trailer) - 2, 'x'}},
              {"strategy.kind 7", {offsetof(RestoreTagRecord, strategy.kind), 7}},
              {"a negative n", {offsetof(RestoreTagRecord, strategy.concurrentReads) + 2, 0xFFFF}}},
          [](auto& t, auto& change) { t.restore(t.newFile(tagWith(t, change)), 5000); });
  add("a tag that is a folder is refused", [](auto& t) {
    const fs::path file = t.newFile();
    fs::path tag = file;
    tag += ":" RESTORE_TAG_STREAM_NAME_A;
    std::error_code error;
    if (!fs::create_directory(tag, error)) throw untried{"a stream is never a folder here"};
    expectRefusal(t, file);
  });
  addEach("nothing is restored by a tag with {}",
          rows<std::size_t>{{"an empty path", 0}, {"a zero in its path", 2}},
          [](auto& t, auto units) {
            t.backing(5000);
            std::wstring path = toNtPath(t.backingPath(L"5000"));
            path.resize(units == 0 ? 0 : path.size() + units);
            expectEmptyFailure(t, t.newFile(tagFor(path)));
          });
  addEach("a start with n = {} is answered", numbers<int>({INT_MIN, -1, 0}),
          [](auto& t, auto n) { t.choose(hex(t.tryStart(t.newFile(5000), n))); });
  addPing("a ping succeeds after refused messages and tags");

  heading = "The answer";
  addEach("a reply buffer of size {} gets the bytes that fit", numbers({0, 8, 15, 16, 100}),
          [](auto& t, auto room) {
            const fs::path file = newlyRestored(t, 5000);
            const answer full =
                t.send(file, {.operation = QueryProgress, .room = sizeof(ProgressInfo)});
            const answer came = t.send(file, {.operation = QueryProgress, .room = room});
            expectResult(came.result);
            expect(came.reply == full.reply.substr(0, room),
                   "the first bytes of the 16-byte answer, as many as fit");
          });

  heading = "What a filter does, message by state";
  // Each operation on a file in one state. Those in `binding` must succeed.
  using binding = std::vector<ControlOperation>;
  const auto addState = [&](const std::string& file, const binding& bound, auto bring) {
    for (std::uint32_t code = 0; code < operations; ++code) {
      const auto operation = static_cast<ControlOperation>(code);
      const bool binds = std::find(bound.begin(), bound.end(), operation) != bound.end();
      add(std::string("a ") + operationNames[code] + " of " + file +
              (binds ? " succeeds" : " is answered"),
          [=](auto& t) {
            HRESULT result = S_OK;
            bring(t, [&](const fs::path& path, HANDLE handle = INVALID_HANDLE_VALUE) {
              const bool mustStart = binds && operation == StartAggressiveRestore;
              if (mustStart) return t.start(path);
              result = t.send(path, {.operation = operation, .handle = handle}).result;
            });
            if (binds) return expectResult(result);
            t.choose(hex(result));
          });
    }
  };
  addState("a file without a tag", {Ping}, [](auto& t, auto tell) { tell(t.newFile()); });
  addState("an idle file", {Ping, StartAggressiveRestore},
           [](auto& t, auto tell) { tell(t.newFile(5000)); });
  addState("a file that is being restored", {Ping, StopAggressiveRestore, QueryProgress},
           [](auto& t, auto tell) { t.whileRestoring([&](auto& file, auto) { tell(file); }); });
  addState("a stopped file", {Ping, StartAggressiveRestore},
           [](auto& t, auto tell) { tell(unfinished(t, true).first); });
  addState("a whole file", {Ping, QueryProgress}, [](auto& t, auto tell) {
    const fs::path file = newlyRestored(t, 5000);
    tell(file);
    t.expectContent(file, t.backing(5000));
  });
  addState("a file whose restoration failed", {Ping}, [](auto& t, auto tell) {
    const fs::path file = t.newFile(tagFor(t.backingPath(L"missing")));
    expectFailure(t, file);
    tell(file);
  });
  addState("a deleted file", {}, [](auto& t, auto tell) {
    const fs::path file = t.newFile(5000);
    const file_handle open(openFile(file));
    t.remove(file);
    tell(t.newFile(), open.get());
  });
  addEach(
      "nothing is restored from a backing file that is {}",
      rows<std::wstring>{{"missing", L"missing"}, {"a folder", L"folder"}},
      [](auto& t, auto& name) { expectEmptyFailure(t, t.newFile(tagFor(t.backingPath(name)))); });
  addEach("a backing file of size {} is restored",
          numbers({0, 1, 4095, 4096, 4097, mebibyte - 1, mebibyte, mebibyte + 1, severalChunks}),
          [](auto& t, auto size) { newlyRestored(t, size); });
  addEach("{} files started together become whole", numbers({8, 50}), restoreAtOnce);
  addEach("a start with n = {} restores the file", numbers<int>({1, 4, 64, INT_MAX}),
          [](auto& t, auto n) { t.restore(t.newFile(severalChunks), severalChunks, n); });
  add("a start is answered before the restoration ends", [](auto& t) {
    try {
      t.whileRestoring([](auto&, auto) {});
    } catch (const untried& why) {
      if (why.reason == noRoom) throw;
      // Either the filter shares blocks, or the start waits. Only a wait grows with the file.
      const double small = secondsOfStart(t, 64 * mebibyte);
      const double large = secondsOfStart(t, 1024 * mebibyte);
      if (large < 0.2 || large < 4 * small) throw;
      throw violation{"a 1 GiB restoration that still runs after its start is answered"};
    }
  });
  add("nothing is written after a stop is answered", [](auto& t) {
    std::uint64_t length = 0;
    const auto [file, size] = t.whileRestoring([&](auto& path, auto) {
      const file_handle open(openFile(path));
      t.stopLater(path);
      length = sizeOf(open.get(), path);
    });
    expect(sizeOf(file) == length, "the length from right after the stop's answer");
    expectUnchanged(file);
  });
  add("a stop of one file stops no other", [](auto& t) {
    fs::path other;
    const auto [file, size] = t.whileRestoring([&](auto& first, auto backingSize) {
      other = t.newFile(backingSize);
      if (t.tryStart(other) != S_OK) throw untried{"the filter refuses to restore two files"};
      t.stop(first);
    });
    t.untilWhole(other, t.backing(size));
  });
  add("a start after a stop continues, until the file is whole", [](auto& t) {
    ProgressInfo before{};
    const auto [file, size] =
        t.whileRestoring([&](auto& path, auto) { before = t.stopLater(path); });
    t.start(file);
    expect(t.progress(file).progress >= before.progress, "the progress from before the stop");
    t.untilWhole(file, t.backing(size));
  });
  add("a start of a whole file writes nothing", [](auto& t) {
    const fs::path file = newlyRestored(t, 5000);
    writeInto(file, 100, "a program's");
    t.choose(hex(t.tryStart(file)));
    expectUnchanged(file);
    expect(contentOf(file, 100, 11) == "a program's", "what a program has written");
  });
  add("a failure is told by each progress query", [](auto& t) {
    const auto [file, size] = t.whileRestoring([](auto&, auto) {}, 1);
    try {
      const file_handle cut(openFile(t.backing(size), GENERIC_WRITE, TRUNCATE_EXISTING));
    } catch (const system_failure&) {
      throw untried{"the backing file cannot be cut: the filter has it open"};
    }
    const auto failure = t.failureOf(file);
    if (!failure) throw untried{"the filter waits"};
    if (*failure == S_OK) {
      const std::string content = contentOf(file);
      const bool isVersion = content.empty() || content == contentOf(t.backing(size));
      return expect(isVersion, "the bytes of one version of the backing file");
    }
    ProgressInfo info;
    expect(t.query(file, info) != S_OK, "a failure again");
  });
  add("a start after a failure makes the file whole", [](auto& t) {
    const fs::path file = t.newFile(tagFor(t.backingPath(L"777")));
    expectFailure(t, file);
    const fs::path backing = t.backing(777);
    // Over a network, the filter's system may remember for seconds that the file was missing.
    const auto end = steady_clock::now() + t.limit;
    for (t.start(file); t.failureOf(file).value_or(S_OK) != S_OK; t.start(file)) {
      expect(steady_clock::now() < end, "a start that does not fail, within the time limit");
      pauseFor(20ms);
    }
    t.untilWhole(file, backing);
  });
  addEach("a file that was deleted {}, then recreated, is restored from its new tag",
          rows<bool>{{"when whole", true}, {"during its restoration", false}},
          [](auto& t, auto wasWhole) {
            const fs::path file = wasWhole ? newlyRestored(t, 4097) : unfinished(t, false).first;
            t.replace(file, t.tagOf(5000));
            t.restore(file, 5000);
          });
  add("a file that is deleted during its restoration grows no more", [](auto& t) {
    for (std::uint64_t least = 64 * mebibyte;; least *= 4) {
      const auto [file, size] = t.whileRestoring([](auto&, auto) {}, 1, least);
      const file_handle open(openFile(file));
      std::uint64_t last = sizeOf(open.get(), file);
      if (last == size) throw untried{"the file has its full size from the start on"};
      t.remove(file);
      const auto end = steady_clock::now() + std::max(std::chrono::seconds(5), t.limit / 2);
      for (std::uint64_t before = size; last != before; last = sizeOf(open.get(), file)) {
        expect(steady_clock::now() < end,
               "an end of the restoration, after 5 s or half the time limit");
        before = last;
        pauseFor(1s);
      }
      if (last < size) return;  // otherwise the filter had no time to see it
    }
  });
  add("a file renamed together with its tag is restored", [](auto& t) {
    const fs::path file = t.newFile(5000);
    t.rename(file, t.nextFile());
    t.restore(t.nextFile(), 5000);
  });
  addPing("a ping succeeds after files were restored");

  heading = "Programs that read and write";
  const std::size_t firstOfReads = all.size();
  for (const bool isStopped : {true, false}) {
    const std::string file = isStopped ? "a stopped file" : "a file that is being restored";
    const rows<reading> readings = {{"the last byte", {1, 1}},
                                    {"the last 4097 bytes", {1, 4097}},
                                    {"the last 3145729 bytes", {1, 3145729}},
                                    {"64 places at once", {64, 5000}}};
    for (const auto& [what, asked] : readings) {
      add(file + " can be read: " + what,
          [=, text = what, how = asked](auto& t) { expectReads(t, isStopped, text, how); });
    }
    add("what is written into " + file + " is kept", [=](auto& t) {
      const auto writeAll = [](auto& path, auto size) {
        writeInto(path, 5 * mebibyte - 3, "a program's");
        writeInto(path, 20 * mebibyte, std::string(mebibyte, 'w'));
        writeInto(path, size - 9, "the end");
      };
      const auto [path, size] = readable(t, isStopped);
      writeAll(path, size);
      if (isStopped) t.start(path);
      const fs::path expected = t.newFile();
      writeFile(expected, contentOf(t.backing(size)));
      writeAll(expected, size);
      t.untilWhole(path, expected);
    });
  }
  add("a read of a part whose backing file is gone gives no other bytes", [](auto& t) {
    const auto [file, size] = readable(t, true);
    const std::string right = contentOf(t.backing(size), size - 5000);
    if (!DeleteFileW(zan::widePath(t.backing(size)).c_str())) {
      throw untried{"the backing file cannot be deleted: the filter has it open"};
    }
    const auto read = [local = file, offset = size - 5000]() -> std::optional<std::string> {
      try {
        return contentOf(local, offset);
      } catch (const system_failure&) {
        return std::nullopt;
      }
    };
    const auto end = steady_clock::now() + 5 * t.limit;  // a filter may try for some time
    const auto came = t.withinLimit("a read", read, [=] { return steady_clock::now() < end; });
    t.choose(came ? "its bytes" : "a failure");
    expect(!came || *came == right, "the backing file's bytes, or a failure");
  });
  for (std::size_t i = firstOfReads; skipsReads && i < all.size(); ++i) {
    all[i].check = [](auto&) { throw untried{"--skip-reads"}; };
  }

  heading = "The tag";
  add("the path ends where pathLength says", [](auto& t) {
    std::string tag = t.tagOf(5000);
    tag[offsetof(RestoreTagRecord, path) + 2 * toNtPath(t.backingPath(L"5000")).size()] = 'x';
    t.restore(t.newFile(tag), 5000);
  });
  addEach("a backing file with {} in its name is restored",
          rows<std::wstring>{{"two scripts", L"\xE9\x4E2D"},
                             {"an emoji", L"\xD83D\xDE00"},
                             {"a byte that is not UTF-8", L"\xDCFF"}},
          [](auto& t, auto& name) {
            const fs::path named = t.backing(5000).parent_path() / zan::hostPath(name);
            try {
              if (zan::widePath(named.filename()) == name)
                writeFile(named, contentOf(t.backing(5000)));
              sizeOf(named);
            } catch (const system_failure&) {
              throw untried{"the file system has no such names"};
            }
            t.restore(t.newFile(tagFor(t.backingPath(name))), 5000);
          });
  add("a hard link has no tag", [](auto& t) {
    const fs::path file = t.newFile(5000);
    const fs::path link = t.nextFile();
    std::error_code error;
    fs::create_hard_link(file, link, error);
    try {
      if (!error) sizeOf(tagOn(link));
    } catch (const system_failure&) {
      return t.choose(expectFailure(t, link));  // a filter that serves reads shows its bytes
    }
    throw untried{"here, a link has the file's streams"};
  });
  add("a file whose tag has the strategy simple becomes whole after a start", [](auto& t) {
    std::string tag = t.tagOf(5000);
    tag[offsetof(RestoreTagRecord, strategy.kind)] = 1;
    tag[offsetof(RestoreTagRecord, strategy.concurrentReads)] = 2;
    const fs::path file = t.newFile(tag);
    t.start(file);  // the filter may have begun before
    t.untilWhole(file, t.backing(5000));
  });
  add("the tag is unchanged when the file is whole", [](auto& t) {
    expect(contentOf(tagOn(newlyRestored(t, 5000))) == t.tagOf(5000), "the same 16376 bytes");
  });
  add("after a tag was replaced, a start uses the new one", [](auto& t) {
    const fs::path file = t.newFile(5000);
    t.send(file, {QueryProgress});  // the filter may look at the old tag
    writeTag(file, t.tagOf(4097), OPEN_EXISTING);
    t.restore(file, 4097);
  });
  addPing("a ping succeeds at the end");
  return all;
}
