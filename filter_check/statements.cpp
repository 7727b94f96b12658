#include "filter_check/statements.h"

#include <climits>
#include <cstddef>
#include <list>
#include <set>

using row = statement::row;

namespace {

constexpr std::uint64_t mebibyte = 1024 * 1024;
constexpr std::uint64_t severalChunks = 3 * mebibyte + 5;

fs::path newlyRestored(trial& t, std::uint64_t size) {
  fs::path file = t.newFile(size);
  t.restore(file, size);
  return file;
}

// A file stopped during its restoration, and the size of its backing file.
auto stopped(trial& t) {
  return t.whileRestoring(
      [&](auto& file) { expect(t.send(file, {StopAggressiveRestore}).result, S_OK); });
}

// A filter at its limit takes more files when others are whole.
void restoreAtOnce(trial& t, std::int64_t count) {
  std::list<std::pair<fs::path, std::uint64_t>> begun;
  for (std::uint64_t i = 0; i < static_cast<std::uint64_t>(count); ++i) {
    const std::uint64_t size = 1 + i % 10 * 200000;
    const fs::path file = t.newFile(size);
    while (t.start(file) != S_OK) {
      expect(!begun.empty(), "a start succeeds if no other file is being restored");
      t.untilWhole(begun.front().first, begun.front().second);
      begun.pop_front();
    }
    begun.emplace_back(file, size);
  }
  for (const auto& [file, size] : begun) t.untilWhole(file, size);
}

// The tag of a small file, in which the 16 bits at the row's offset are XORed with its value.
std::string changedTag(const trial& t, const row& change) {
  std::string tag = t.tagOf(5000);
  tag[change.offset] = static_cast<char>(tag[change.offset] ^ change.value);
  tag[change.offset + 1] = static_cast<char>(tag[change.offset + 1] ^ change.value >> 8);
  return tag;
}

void expectEmpty(const fs::path& file) { expect(contentOf(file).empty(), "the file stays empty"); }

// A start that must be refused, with a code of the filter's choice.
void expectRefusal(trial& t, const fs::path& file) {
  const HRESULT result = t.start(file);
  expect(result != S_OK, "the start is refused");
  t.choice = hex(result);
  expectEmpty(file);
}

// Nothing can be restored. The start says so, or a progress query after it.
void expectFailure(trial& t, const fs::path& file) {
  HRESULT result = t.start(file);
  t.choice = result == S_OK ? "0x00000000, then a progress query answers " : "";
  const auto end = steady_clock::now() + t.limit;
  while (result == S_OK) {
    expect(steady_clock::now() < end,
           "the start, or a progress query after it, fails within the time limit");
    pauseFor(20ms);
    result = t.send(file, {.operation = QueryProgress, .room = sizeof(ProgressInfo)}).result;
  }
  t.choice += hex(result);
  expectEmpty(file);
}

}  // namespace

std::vector<statement> contractStatements(std::ptrdiff_t instances, bool isOneVolume) {
  const char* heading = "Registration";
  std::vector<statement> all;
  const auto addEach = [&](const char* text, std::vector<row> rows, auto check,
                           bool isVital = false) {
    all.push_back({heading, text, std::move(rows), std::move(check), isVital});
  };
  const auto add = [&](const char* text, auto check, bool isVital = false) {
    addEach(
        text, {0}, [check](trial& t, auto&) { check(t); }, isVital);
  };
  const auto addPing = [&](const char* text) {
    add(text, [](auto& t) { expect(t.send(t.newFile(), {}).result, S_OK); });
  };

  add(
      "zan_restore_filter has an instance on the volume",
      [=](auto&) {
        expect(instances > 0, "an instance (Windows lists instances only in an elevated console)");
      },
      true);
  add("zan_restore_filter has no second instance on the volume",
      [=](auto&) { expect(instances == 1, "one instance per volume"); });
  add(
      "the port named after the volume id accepts a connection",
      [](auto& t) { const file_handle port(t.connect()); }, true);
  addPing("a ping succeeds");

  heading = "The connection";
  addEach("a context of size {} is refused", {0, 39, 41, 4096}, [](auto& t, auto& r) {
    const auto [result, opened] = t.tryConnect(static_cast<std::size_t>(r.value));
    const file_handle port(opened);
    expect(result, E_INVALIDARG);
  });
  add("the content of the context means nothing",
      [](auto& t) { const file_handle port(t.connect('\xFF')); });
  addEach("{} connections at the same time are served", {9}, [](auto& t, auto& r) {
    std::list<file_handle> ports;  // the ninth is that of the ping
    for (int i = 1; i < r.value; ++i) ports.emplace_back(t.connect());
    expect(t.send(t.newFile(), {}).result, S_OK);
  });
  addEach("{} connections one after another are served", {1000}, [](auto& t, auto& r) {
    for (int i = 0; i < r.value; ++i, t.log.clear()) const file_handle port(t.connect());
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
    t.untilWhole(file, severalChunks);
    expect(contentOf(other).empty(), "a file whose handle has the same value stays empty");
  });

  heading = "Checks";
  addEach("a message of size {} is refused", {0, 1, 8, 12, 20, 23, 25, 28, 48, 4096},
          [](auto& t, auto& r) { t.expectRefused({.size = static_cast<std::size_t>(r.value)}); });
  addEach("operation {} is refused", {4, 5, 0x80000000, UINT32_MAX},
          [](auto& t, auto& r) { t.expectRefused({static_cast<ControlOperation>(r.value)}); });
  addEach("a handle value with bit {} set is refused", {16, 40}, [](auto& t, auto& r) {
    const file_handle file(openFile(t.newFile()));
    const auto handle = reinterpret_cast<std::uintptr_t>(file.get()) | 1ULL << r.value;
    t.expectRefused({.handle = reinterpret_cast<HANDLE>(handle)});
  });
  add("a closed handle is refused", [](auto& t) { t.expectRefused({.isClosed = true}); });
  add("a handle of a folder is refused", [](auto& t) {
    const file_handle folder(openFile(t.folder.path, FILE_FLAG_BACKUP_SEMANTICS));
    const HRESULT result = t.send(t.newFile(), {.handle = folder.get()}).result;
    expect(result == E_INVALIDARG || result == HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED),
           "0x80070057 or 0x80070005");
    t.choice = hex(result);
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
    tag.resize(static_cast<std::size_t>(r.value));
    expectRefusal(t, t.newFile(tag));
  });
  addEach("a tag with {} is refused",
          {{"a wrong tag field", 1, offsetof(RestoreTagRecord, tag)},
           {"a wrong dataLength", 1, offsetof(RestoreTagRecord, dataLength)},
           {"a wrong guid", 1, offsetof(RestoreTagRecord, guid) + 14},
           {"pathOffset 0", 8, offsetof(RestoreTagRecord, pathOffset)},
           {"pathOffset 9", 1, offsetof(RestoreTagRecord, pathOffset)},
           {"pathOffset 0xffff", 0xFFF7, offsetof(RestoreTagRecord, pathOffset)},
           {"an odd pathLength", 1, offsetof(RestoreTagRecord, pathLength)},
           {"a pathLength beyond the tag", 0x8000, offsetof(RestoreTagRecord, pathLength)}},
          [](auto& t, auto& r) { expectRefusal(t, t.newFile(changedTag(t, r))); });
  add("a tag whose pathLength includes the trailer is refused", [](auto& t) {
    std::string tag = t.tagOf(5000);
    const std::uint16_t length = RESTORE_TAG_PATH_UNITS * 2 + 4;
    std::memcpy(&tag[offsetof(RestoreTagRecord, pathLength)], &length, sizeof(length));
    expectRefusal(t, t.newFile(tag));
  });
  addEach("nothing is restored by a tag with {}",
          {{"an empty path", 0, offsetof(RestoreTagRecord, pathLength)},
           {"a zero in its path", 0, offsetof(RestoreTagRecord, path) + 8}},
          [](auto& t, auto& r) {
            expectFailure(t, t.newFile(t.tagOf(5000).replace(r.offset, 2, 2, '\0')));
          });
  addEach("a start with n = {} is answered", {INT_MIN, -1, 0}, [](auto& t, auto& r) {
    t.choice = hex(t.start(t.newFile(5000), static_cast<std::int32_t>(r.value)));
  });
  addPing("a ping succeeds after refused messages and tags");

  heading = "Rights";
  add("a tag lets nobody read a file they have no right to read",
      [](auto&) { throw untried{"the check runs as one user"}; });

  heading = "The answer";
  addEach("a reply buffer of size {} gets the bytes that fit", {0, 8, 15, 16, 100},
          [](auto& t, auto& r) {
            const fs::path file = newlyRestored(t, 5000);
            const auto room = static_cast<std::size_t>(r.value);
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
          std::ssize(rows));
    }
    addEach("{}", rows, [=](auto& t, auto& r) {
      const auto operation = static_cast<ControlOperation>(r.value);
      bring(t, [&](const fs::path& path, HANDLE handle = INVALID_HANDLE_VALUE) {
        t.tell(path, {.operation = operation, .handle = handle}, binding.contains(operation));
      });
    });
  };
  addState("a file without a tag", {Ping}, [](auto& t, auto tell) { tell(t.newFile()); });
  addState("an idle file", {Ping, StartAggressiveRestore},
           [](auto& t, auto tell) { tell(t.newFile(5000)); });
  addState("a file that is being restored", {Ping, StopAggressiveRestore, QueryProgress},
           [](auto& t, auto tell) { t.whileRestoring(tell); });
  addState("a stopped file", {Ping, StartAggressiveRestore},
           [](auto& t, auto tell) { tell(stopped(t).first); });
  addState("a whole file", {Ping, QueryProgress}, [](auto& t, auto tell) {
    const fs::path file = newlyRestored(t, 5000);
    tell(file);
    t.expectContent(file, 5000);
  });
  addState("a file whose restoration failed", {Ping}, [](auto& t, auto tell) {
    const fs::path file = t.newFile(tagFor(t.prefix + L"missing"));
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
            expectFailure(t, t.newFile(tagFor(t.prefix + (r.value == 0 ? L"missing" : L"folder"))));
          });
  addEach("a backing file of size {} is restored",
          {0, 1, 4095, 4096, 4097, mebibyte - 1, mebibyte, mebibyte + 1, severalChunks},
          [](auto& t, auto& r) { newlyRestored(t, static_cast<std::uint64_t>(r.value)); });
  addEach("{} files started together become whole", {8, 50},
          [](auto& t, auto& r) { restoreAtOnce(t, r.value); });
  addEach("a start with n = {} restores the file", {1, 4, 64, INT_MAX}, [](auto& t, auto& r) {
    t.restore(t.newFile(severalChunks), severalChunks, static_cast<std::int32_t>(r.value));
  });
  add("a start is answered before the restoration ends", [](auto& t) {
    try {
      t.whileRestoring([](auto&) {});
    } catch (const untried&) {
      throw violation{"a 1 GiB restoration that still runs after its start is answered"};
    }
  });
  add("nothing is written after a stop is answered", [](auto& t) {
    const fs::path file = stopped(t).first;
    const std::string content = contentOf(file);
    pauseFor(1s);
    expect(contentOf(file) == content, "the same content one second later");
  });
  add("a start after a stop makes the file whole", [](auto& t) {
    const auto [file, size] = stopped(t);
    t.restore(file, size);
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
                r.value == 0 ? newlyRestored(t, 4097) : t.whileRestoring([](auto&) {}).first;
            t.remove(file);
            t.rename(t.newFile(5000), file);
            t.restore(file, 5000);
          });
  add("a file renamed together with its tag is restored", [](auto& t) {
    const fs::path file = t.newFile(5000);
    t.rename(file, t.nextFile());
    t.restore(t.nextFile(), 5000);
  });
  addPing("a ping succeeds after files were restored");

  heading = "The tag";
  add("the path ends where pathLength says", [](auto& t) {
    std::string tag = t.tagOf(5000);
    tag[offsetof(RestoreTagRecord, path) + 2 * toNtPath(t.prefix + L"5000").size()] = 'x';
    t.restore(t.newFile(tag), 5000);
  });
  add("a file whose tag has the strategy simple becomes whole after a start", [](auto& t) {
    std::string tag = t.tagOf(5000);
    tag[offsetof(RestoreTagRecord, strategy.kind)] = 1;
    tag[offsetof(RestoreTagRecord, strategy.concurrentReads)] = 2;
    const fs::path file = t.newFile(tag);
    t.choice = hex(t.start(file));  // the filter may have begun before
    t.untilWhole(file, 5000);
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
