#include "filter_check/statements.h"

#include <climits>
#include <cstddef>
#include <fstream>
#include <list>
#include <set>

#include "restore/nt_path.h"

using row = statement::row;

namespace {

constexpr std::uint64_t mebibyte = 1024 * 1024;
constexpr std::uint64_t severalChunks = 3 * mebibyte + 5;

fs::path newlyRestored(trial& t, std::uint64_t size) {
  fs::path file = t.newFile(size);
  t.restore(file, size);
  return file;
}

// A file that is being restored, or was stopped a moment after its start, and the size of its
// backing file.
auto unfinished(
    trial& t, bool isStopped, const trial::file_action& action = [](auto&, auto) {}) {
  return t.whileRestoring([&](auto& file, auto size) {
    if (isStopped) t.stopLater(file);
    action(file, size);
  });
}
auto stopped(trial& t) { return unfinished(t, true); }

// The same, of a filter that serves reads: the file has its full size.
auto readable(trial& t, bool isStopped, const trial::file_action& action) {
  return unfinished(t, isStopped, [&](auto& file, auto size) {
    const bool isFull = fs::file_size(file) == size;
    expect(isFull || fs::path::preferred_separator == '/', "the backing file's size");
    if (!isFull) throw untried{"the filter serves no reads: the file shows only what is restored"};
    action(file, size);
  });
}

// A filter at its limit takes more files when others are whole.
void restoreAtOnce(trial& t, std::size_t count) {
  std::list<std::pair<fs::path, std::uint64_t>> begun;
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint64_t size = 1 + i % 10 * 200000;
    const fs::path file = t.newFile(size);
    while (t.start(file) != S_OK) {
      expect(!begun.empty(), "a start succeeds if no other file is being restored");
      t.untilWhole(begun.front().first, t.backing(begun.front().second));
      begun.pop_front();
    }
    begun.emplace_back(file, size);
  }
  for (const auto& [file, size] : begun) t.untilWhole(file, t.backing(size));
}

// The tag of a small file, with the row's value in the 16 bits at the row's offset.
std::string tagWith(const trial& t, const row& change) {
  const char bytes[] = {static_cast<char>(change.value), static_cast<char>(change.value >> 8)};
  return t.tagOf(5000).replace(change.offset, 2, bytes, 2);
}

void expectEmpty(const fs::path& file) { expect(contentOf(file).empty(), "the file stays empty"); }

// A start that must be refused, with a code of the filter's choice.
void expectRefusal(trial& t, const fs::path& file) {
  const HRESULT result = t.start(file);
  expect(result != S_OK, "the start is refused");
  t.choose(hex(result));
  expectEmpty(file);
}

// Nothing can be restored. The start says so, or a progress query after it.
void expectFailure(trial& t, const fs::path& file) {
  HRESULT result = t.start(file);
  const bool isStarted = result == S_OK;
  if (isStarted) result = t.failureOf(file);
  expect(result != S_OK, "the start fails, or a progress query after it");
  t.choose((isStarted ? "0x00000000, then a progress query answers " : "") + hex(result));
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

// As many programs as the row's offset says read the ends of as many equal parts of a file.
void expectReads(trial& t, const fs::path& file, std::uint64_t whole, const row& r) {
  const auto readAll = [=, backing = t.backing(whole)] {
    std::list<std::future<bool>> reads;
    for (std::size_t i = 1; i <= r.offset; ++i) {
      const std::uint64_t offset = whole / r.offset * i - r.value;
      reads.push_back(std::async(std::launch::async, [=] {
        return contentOf(file, offset, r.value) == contentOf(backing, offset, r.value);
      }));
    }
    return std::all_of(reads.begin(), reads.end(), [](auto& each) { return each.get(); });
  };
  expect(t.withinLimit("read " + r.text, readAll), "the backing file's bytes");
}

}  // namespace

std::vector<statement> contractStatements(std::ptrdiff_t instances, bool isOneVolume) {
  const char* heading = "Registration";
  std::vector<statement> all;
  const auto addEach = [&](const std::string& text, std::vector<row> rows, auto check) {
    all.push_back({heading, text, std::move(rows), std::move(check)});
  };
  const auto add = [&](const std::string& text, auto check) {
    addEach(text, {0}, [check](trial& t, auto&) { check(t); });
  };
  const auto addPing = [&](const char* text) {
    add(text, [](auto& t) { expect(t.send(t.newFile(), {}).result, S_OK); });
  };

  add("zan_restore_filter has an instance on the volume", [=](auto&) {
    expect(instances > 0, "an instance (Windows lists instances only in an elevated console)");
  });
  all.back().isVital = true;
  add("zan_restore_filter has no second instance on the volume",
      [=](auto&) { expect(instances == 1, "one instance per volume"); });
  add("the port named after the volume id accepts a connection",
      [](auto& t) { const file_handle port(t.connect()); });
  all.back().isVital = true;
  addPing("a ping succeeds");

  heading = "The connection";
  addEach("a context of size {} is refused", {0, 39, 41, 4096}, [](auto& t, auto& r) {
    const auto [result, opened] = t.tryConnect(r.value);
    const file_handle port(opened);
    expect(result, E_INVALIDARG);
  });
  add("the content of the context means nothing",
      [](auto& t) { const file_handle port(t.connect('\xFF')); });
  addEach("{} connections at the same time are served", {9}, [](auto& t, auto& r) {
    std::list<file_handle> ports;  // the ninth is that of the ping
    for (std::size_t i = 1; i < r.value; ++i) ports.emplace_back(t.connect());
    expect(t.send(t.newFile(), {}).result, S_OK);
  });
  addEach("{} connections one after another are served", {1000}, [](auto& t, auto& r) {
    for (std::size_t i = 0; i < r.value; ++i) const file_handle port(t.connect());
    expect(t.send(t.newFile(), {}).result, S_OK);
  });

  heading = "The message";
  add("fields that the operation does not use are ignored",
      [](auto& t) { expect(t.send(t.newFile(), {.unused = UINT32_MAX}).result, S_OK); });
  add("the handle's value is not used after the answer", [](auto& t) {
    const fs::path file = t.newFile(severalChunks);
    const fs::path other = t.newFile();
    expect(t.start(file), S_OK);
    std::list<file_handle> sameNumbers;
    for (int i = 0; i < 8; ++i) sameNumbers.emplace_back(openFile(other));
    t.untilWhole(file, t.backing(severalChunks));
    expect(contentOf(other).empty(), "a file whose handle has the same value stays empty");
  });

  heading = "Checks";
  addEach("a message of size {} is refused", {0, 1, 8, 12, 20, 23, 25, 28, 48, 4096},
          [](auto& t, auto& r) { t.expectRefused({.size = r.value}); });
  addEach("operation {} is refused", {4, 5, 0x80000000, UINT32_MAX},
          [](auto& t, auto& r) { t.expectRefused({static_cast<ControlOperation>(r.value)}); });
  addEach("a handle value with bit {} set is refused", {16, 40}, [](auto& t, auto& r) {
    const file_handle file(openFile(t.newFile()));
    const auto handle = reinterpret_cast<std::uintptr_t>(file.get()) | 1ULL << r.value;
    t.expectRefused({.handle = reinterpret_cast<HANDLE>(handle)});
  });
  add("a closed handle is refused", [](auto& t) { t.expectRefused({.isClosed = true}); });
  add("a handle of a folder is refused", [](auto& t) {
    const file_handle folder(openFile(t.folder(), FILE_FLAG_BACKUP_SEMANTICS));
    const HRESULT result = t.send(t.newFile(), {.handle = folder.get()}).result;
    expect(result == E_INVALIDARG || result == HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED),
           "0x80070057 or 0x80070005");
    t.choose(hex(result));
  });
  add("a handle of a pipe is refused", [](auto& t) {
    HANDLE ends[2] = {INVALID_HANDLE_VALUE, INVALID_HANDLE_VALUE};
    CreatePipe(&ends[0], &ends[1], nullptr, 0);
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
    expect(t.start(t.newFile(tagFor(zan::widePath(fs::absolute(file))))), E_INVALIDARG);
    expectEmpty(file);
  });
  addEach("a tag of size {} is refused", {0, 36, 16375, 16377}, [](auto& t, auto& r) {
    std::string tag = t.tagOf(5000);
    tag.resize(r.value);
    expectRefusal(t, t.newFile(tag));
  });
  addEach(
      "a tag with {} is refused",
      {{"a wrong tag field", 0x52, offsetof(RestoreTagRecord, tag)},
       {"a wrong dataLength", 0x3FE1, offsetof(RestoreTagRecord, dataLength)},
       {"a wrong guid", 0, offsetof(RestoreTagRecord, guid) + 14},
       {"pathOffset 0", 0, offsetof(RestoreTagRecord, pathOffset)},
       {"pathOffset 9", 9, offsetof(RestoreTagRecord, pathOffset)},
       {"pathOffset 0xffff", 0xFFFF, offsetof(RestoreTagRecord, pathOffset)},
       {"an odd pathLength", 13, offsetof(RestoreTagRecord, pathLength)},
       {"a pathLength that includes the trailer", 16340, offsetof(RestoreTagRecord, pathLength)},
       {"a pathLength beyond the tag", 0x8000, offsetof(RestoreTagRecord, pathLength)}},
      [](auto& t, auto& r) { expectRefusal(t, t.newFile(tagWith(t, r))); });
  addEach("a tag with {} restores the file",
          {{"reserved 1", 1, offsetof(RestoreTagRecord, reserved)},
           {"trailer 1", 1, offsetof(RestoreTagRecord, trailer)},
           {"something behind its path", 'x', offsetof(RestoreTagRecord, trailer) - 2},
           {"strategy.kind 7", 7, offsetof(RestoreTagRecord, strategy.kind)},
           {"a negative n", 0xFFFF, offsetof(RestoreTagRecord, strategy.concurrentReads) + 2}},
          [](auto& t, auto& r) { t.restore(t.newFile(tagWith(t, r)), 5000); });
  add("a tag that is a folder is refused", [](auto& t) {
    const fs::path file = t.newFile();
    std::error_code error;
    if (!fs::create_directory(tagOn(file), error)) throw untried{"a stream is never a folder here"};
    expectRefusal(t, file);
  });
  addEach("nothing is restored by a tag with {}",
          {{"an empty path", 0, offsetof(RestoreTagRecord, pathLength)},
           {"a zero in its path", 0, offsetof(RestoreTagRecord, path) + 8}},
          [](auto& t, auto& r) { expectFailure(t, t.newFile(tagWith(t, r))); });
  addEach("a start with n = {} is answered", {INT_MIN, -1, 0}, [](auto& t, auto& r) {
    t.choose(hex(t.start(t.newFile(5000), static_cast<std::int32_t>(r.value))));
  });
  addPing("a ping succeeds after refused messages and tags");

  heading = "Rights";
  add("a tag lets nobody read a file they have no right to read",
      [](auto&) { throw untried{"the check runs as one user"}; });

  heading = "The answer";
  addEach("a reply buffer of size {} gets the bytes that fit", {0, 8, 15, 16, 100},
          [](auto& t, auto& r) {
            const fs::path file = newlyRestored(t, 5000);
            const auto room = r.value;
            const answer full =
                t.send(file, {.operation = QueryProgress, .room = sizeof(ProgressInfo)});
            const answer came = t.send(file, {.operation = QueryProgress, .room = room});
            expect(came.result, S_OK);
            expect(came.reply == full.reply.substr(0, room),
                   "the first bytes of the 16-byte answer, as many as fit");
          });

  heading = "What a filter does, message by state";
  // Each operation on a file in one state. Those in `binding` must succeed.
  using operations = std::set<ControlOperation>;
  const auto addState = [&](const std::string& file, const operations& binding, auto bring) {
    std::vector<row> rows;
    for (const char* each : {"ping", "start", "stop", "progress query"}) {
      const bool binds = binding.contains(static_cast<ControlOperation>(rows.size()));
      rows.emplace_back(
          std::string("a ") + each + " of " + file + (binds ? " succeeds" : " is answered"),
          rows.size());
    }
    addEach("{}", rows, [=](auto& t, auto& r) {
      const auto operation = static_cast<ControlOperation>(r.value);
      bring(t, [&](const fs::path& path, HANDLE handle = INVALID_HANDLE_VALUE) {
        const HRESULT result = t.send(path, {.operation = operation, .handle = handle}).result;
        if (binding.contains(operation)) return expect(result, S_OK);
        t.choose(hex(result));
      });
    });
  };
  addState("a file without a tag", {Ping}, [](auto& t, auto tell) { tell(t.newFile()); });
  addState("an idle file", {Ping, StartAggressiveRestore},
           [](auto& t, auto tell) { tell(t.newFile(5000)); });
  addState("a file that is being restored", {Ping, StopAggressiveRestore, QueryProgress},
           [](auto& t, auto tell) { t.whileRestoring([&](auto& file, auto) { tell(file); }); });
  addState("a stopped file", {Ping, StartAggressiveRestore},
           [](auto& t, auto tell) { tell(stopped(t).first); });
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
  addEach("nothing is restored from a backing file that is {}", {{"missing", 0}, {"a folder", 1}},
          [](auto& t, auto& r) {
            expectFailure(t,
                          t.newFile(tagFor(t.backingPath(r.value == 0 ? L"missing" : L"folder"))));
          });
  addEach("a backing file of size {} is restored",
          {0, 1, 4095, 4096, 4097, mebibyte - 1, mebibyte, mebibyte + 1, severalChunks},
          [](auto& t, auto& r) { newlyRestored(t, r.value); });
  addEach("{} files started together become whole", {8, 50},
          [](auto& t, auto& r) { restoreAtOnce(t, r.value); });
  addEach("a start with n = {} restores the file", {1, 4, 64, INT_MAX}, [](auto& t, auto& r) {
    t.restore(t.newFile(severalChunks), severalChunks, static_cast<std::int32_t>(r.value));
  });
  add("a start is answered before the restoration ends", [](auto& t) {
    try {
      t.whileRestoring([](auto&, auto) {});
    } catch (const untried&) {
      throw violation{"a 1 GiB restoration that still runs after its start is answered"};
    }
  });
  add("nothing is written after a stop is answered",
      [](auto& t) { expectUnchanged(stopped(t).first); });
  add("a stop of one file stops no other", [](auto& t) {
    fs::path other;
    const auto [file, size] = unfinished(t, false, [&](auto& first, auto backingSize) {
      other = t.newFile(backingSize);
      if (t.start(other) != S_OK) throw untried{"the filter restores one file at a time"};
      expect(t.send(first, {StopAggressiveRestore}).result, S_OK);
    });
    t.untilWhole(other, t.backing(size));
  });
  add("a start after a stop continues, until the file is whole", [](auto& t) {
    ProgressInfo before{};
    const auto [file, size] =
        t.whileRestoring([&](auto& path, auto) { before = t.stopLater(path); });
    expect(t.start(file), S_OK);
    expect(t.progress(file).progress >= before.progress, "the progress from before the stop");
    t.untilWhole(file, t.backing(size));
  });
  add("a start of a whole file writes nothing", [](auto& t) {
    const fs::path file = newlyRestored(t, 5000);
    writeInto(file, 100, "a program's");
    t.choose(hex(t.start(file)));
    expectUnchanged(file);
    expect(contentOf(file, 100, 11) == "a program's", "what a program has written");
  });
  add("a failure is told by each progress query", [](auto& t) {
    const auto [file, size] = t.whileRestoring([](auto&, auto) {}, 1);
    std::error_code error;
    fs::resize_file(t.backing(size), 4096, error);
    if (error) throw untried{"the backing file cannot be cut: the filter has it open"};
    if (t.failureOf(file) == S_OK) throw untried{"the file became whole nevertheless"};
    ProgressInfo info;
    expect(t.query(file, info) != S_OK, "a failure again");
  });
  add("a start after a failure makes the file whole", [](auto& t) {
    const fs::path file = t.newFile(777);
    fs::remove(t.backing(777));
    expectFailure(t, file);
    t.backing(777);
    t.restore(file, 777);
  });
  addEach("a file that was deleted {}, then recreated, is restored from its new tag",
          {{"when whole", 0}, {"during its restoration", 1}}, [](auto& t, auto& r) {
            const fs::path file =
                r.value == 0 ? newlyRestored(t, 4097) : t.whileRestoring([](auto&, auto) {}).first;
            t.remove(file);
            t.rename(t.newFile(5000), file);
            t.restore(file, 5000);
          });
  add("a file that is deleted during its restoration grows no more", [](auto& t) {
    const auto [file, size] = t.whileRestoring([](auto&, auto) {}, 1);
    std::ifstream open(file, std::ios::binary);
    const auto length = [&] { return std::uint64_t(open.seekg(0, std::ios::end).tellg()); };
    if (length() == size) throw untried{"the file has its full size from the start on"};
    t.remove(file);
    std::uint64_t last = 0;
    for (; last != length(); pauseFor(500ms)) last = length();
    expect(last < size, "fewer bytes than the backing file has");
  });
  add("a file renamed together with its tag is restored", [](auto& t) {
    const fs::path file = t.newFile(5000);
    t.rename(file, t.nextFile());
    t.restore(t.nextFile(), 5000);
  });
  addPing("a ping succeeds after files were restored");

  heading = "Programs that read and write";
  for (const bool isStopped : {true, false}) {
    const std::string file = isStopped ? "a stopped file" : "a file that is being restored";
    addEach(file + " can be read: {}",
            {{"the last byte", 1, 1},
             {"the last 4097 bytes", 4097, 1},
             {"the last 3145729 bytes", 3145729, 1},
             {"64 places at once", 5000, 64}},
            [=](auto& t, auto& r) {
              readable(t, isStopped, [&](auto& path, auto size) { expectReads(t, path, size, r); });
            });
    add("what is written into " + file + " is kept", [=](auto& t) {
      const auto writeAll = [](auto& path, auto size) {
        writeInto(path, 5 * mebibyte - 3, "a program's");
        writeInto(path, 20 * mebibyte, std::string(mebibyte, 'w'));
        writeInto(path, size - 9, "the end");
      };
      const auto [path, size] = readable(t, isStopped, writeAll);
      if (isStopped) expect(t.start(path), S_OK);
      const fs::path expected = t.newFile();
      fs::copy_file(t.backing(size), expected, fs::copy_options::overwrite_existing);
      writeAll(expected, size);
      t.untilWhole(path, expected);
    });
  }
  add("a read of a part whose backing file is gone gives no other bytes", [](auto& t) {
    readable(t, true, [&](auto& file, auto size) {
      const std::string right = contentOf(t.backing(size), size - 5000);
      std::error_code error;
      if (!fs::remove(t.backing(size), error)) throw untried{"the filter has it open"};
      const auto read = [=] { return contentOf(file, size - 5000); };
      const std::string came = t.withinLimit("a read", read);
      t.choose(came == right ? "its bytes" : "a failure");
      expect(right.starts_with(came), "the backing file's bytes, or a failure");
    });
  });

  heading = "The tag";
  add("the path ends where pathLength says", [](auto& t) {
    std::string tag = t.tagOf(5000);
    tag[offsetof(RestoreTagRecord, path) + 2 * toNtPath(t.backingPath(L"5000")).size()] = 'x';
    t.restore(t.newFile(tag), 5000);
  });
  addEach("a backing file with {} in its name is restored",
          {{"two scripts", 0}, {"an emoji", 1}, {"a byte that is not UTF-8", 2}},
          [](auto& t, auto& r) {
            static constexpr const wchar_t* names[] = {L"\xE9\x4E2D", L"\xD83D\xDE00", L"\xDCFF"};
            const std::wstring name = names[r.value];
            const fs::path named = t.backing(5000).parent_path() / zan::hostPath(name);
            std::error_code error;
            fs::copy_file(t.backing(5000), named, error);
            if (error || zan::widePath(named.filename()) != name) {
              throw untried{"the file system has no such names"};
            }
            t.restore(t.newFile(tagFor(t.backingPath(name))), 5000);
          });
  add("a hard link has no tag", [](auto& t) {
    const fs::path file = t.newFile(5000);
    const fs::path link = t.nextFile();
    std::error_code error;
    fs::create_hard_link(file, link, error);
    if (error || fs::exists(tagOn(link))) throw untried{"here, a link has the file's streams"};
    expectRefusal(t, link);
  });
  add("a file whose tag has the strategy simple becomes whole after a start", [](auto& t) {
    std::string tag = t.tagOf(5000);
    tag[offsetof(RestoreTagRecord, strategy.kind)] = 1;
    tag[offsetof(RestoreTagRecord, strategy.concurrentReads)] = 2;
    const fs::path file = t.newFile(tag);
    t.choose(hex(t.start(file)));  // the filter may have begun before
    t.untilWhole(file, t.backing(5000));
  });
  add("the tag is unchanged when the file is whole", [](auto& t) {
    expect(contentOf(tagOn(newlyRestored(t, 5000))) == t.tagOf(5000), "the same 16376 bytes");
  });
  add("after a tag was replaced, a start uses the new one", [](auto& t) {
    const fs::path file = t.newFile(5000);
    t.send(file, {QueryProgress});
    writeTag(file, t.tagOf(4097), OPEN_EXISTING);
    t.restore(file, 4097);
  });
  addPing("a ping succeeds at the end");
  return all;
}
