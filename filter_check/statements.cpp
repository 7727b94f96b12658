#include "filter_check/statements.h"

#include <climits>
#include <cstddef>
#include <list>

using row = statement::row;

namespace {

constexpr std::uint64_t mebibyte = 1024 * 1024;
constexpr std::uint64_t severalChunks = 3 * mebibyte + 5;

fs::path newlyRestored(trial& t, std::uint64_t size) {
  fs::path file = t.newFile(size);
  t.restore(file, size);
  return file;
}

// A file that was being restored when it was stopped, and the size of its backing file.
auto stopped(trial& t) {
  return t.whileRestoring(
      [&](auto& file) { expect(t.send(file, {StopAggressiveRestore}).result, S_OK); });
}

// A filter that has come to its limit takes more files when others are whole.
void restoreAtOnce(trial& t, std::int64_t count) {
  std::list<std::pair<fs::path, std::uint64_t>> begun;
  for (std::uint64_t i = 0; i < static_cast<std::uint64_t>(count); ++i) {
    const std::uint64_t size = 1 + i % 10 * 200000;
    const fs::path file = t.newFile(size);
    while (t.start(file) != S_OK) {
      expect(!begun.empty(), "a start, when no other file is being restored");
      t.untilWhole(begun.front().first, begun.front().second);
      begun.pop_front();
    }
    begun.emplace_back(file, size);
  }
  for (const auto& [file, size] : begun) t.untilWhole(file, size);
}

// The tag of a small file with the bits of a 16-bit value flipped at an offset.
std::string changedTag(const trial& t, const row& change) {
  std::string tag = t.tagOf(5000);
  tag[change.offset] = static_cast<char>(tag[change.offset] ^ change.value);
  tag[change.offset + 1] = static_cast<char>(tag[change.offset + 1] ^ change.value >> 8);
  return tag;
}

// Nothing can be restored. The answer to the start says so, or may say so later.
void expectFailure(trial& t, const fs::path& file, bool mayBegin = true) {
  HRESULT result = t.start(file);
  t.choice = result == S_OK ? "begins, then " : "";
  for (int tries = 0; result == S_OK; ++tries) {
    expect(mayBegin && tries < 500, mayBegin ? "a failure, at once or later" : "a refusal");
    pauseFor(20ms);
    result = t.send(file, {.operation = QueryProgress, .room = sizeof(ProgressInfo)}).result;
  }
  t.choice += hex(result);
  expect(contentOf(file).empty(), "that the file is left as it was, empty");
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
  const auto addPing = [&] {
    add("a ping succeeds", [](auto& t) { expect(t.send(t.newFile(), {}).result, S_OK); });
  };

  add(
      "instance of zan_restore_filter on the volume",
      [=](auto&) { expect(instances > 0, "one instance for each volume"); }, true);
  add("no second instance there",
      [=](auto&) { expect(instances == 1, "one instance for each volume"); });
  add(
      "connection to the port with the volume's name",
      [](auto& t) { const file_handle port(t.connect()); }, true);
  addPing();

  heading = "The connection";
  addEach("a context of {} bytes is refused", {0, 39, 41, 4096}, [](auto& t, auto& r) {
    const auto [result, opened] = t.tryConnect(static_cast<std::size_t>(r.value));
    const file_handle port(opened);
    expect(result, E_INVALIDARG);
  });
  add("the content of the context means nothing",
      [](auto& t) { const file_handle port(t.connect('\xFF')); });
  addEach("{} connections at once are served", {8}, [](auto& t, auto& r) {
    std::list<file_handle> ports;
    for (int i = 0; i < r.value; ++i) ports.emplace_back(t.connect());
    expect(t.send(t.newFile(), {}).result, S_OK);
  });
  addEach("{} connections one after another are served", {1000}, [](auto& t, auto& r) {
    for (int i = 0; i < r.value; ++i, t.log.clear()) const file_handle port(t.connect());
    expect(t.send(t.newFile(), {}).result, S_OK);
  });

  heading = "The message";
  add("fields that the operation does not use are ignored",
      [](auto& t) { expect(t.send(t.newFile(), {.unused = UINT32_MAX}).result, S_OK); });
  add("the handle is used only while the message is handled", [](auto& t) {
    const fs::path file = t.newFile(severalChunks);
    const fs::path other = t.newFile();
    expect(t.start(file), S_OK);
    std::list<file_handle> sameNumbers;
    for (int i = 0; i < 8; ++i) sameNumbers.emplace_back(openFile(other));
    t.untilWhole(file, severalChunks);
    expect(contentOf(other).empty(), "nothing in the file that has its number now");
  });

  heading = "Checks";
  addEach("a message of {} bytes is refused", {0, 1, 8, 12, 20, 23, 25, 28, 48, 4096},
          [](auto& t, auto& r) { t.expectRefused({.size = static_cast<std::size_t>(r.value)}); });
  addEach("operation {} is refused", {4, 5, 0x80000000, UINT32_MAX},
          [](auto& t, auto& r) { t.expectRefused({static_cast<ControlOperation>(r.value)}); });
  addEach("a handle that has {} besides is refused", {{"bit 16", 16}, {"bit 40", 40}},
          [](auto& t, auto& r) {
            const file_handle file(openFile(t.newFile()));
            const auto handle = reinterpret_cast<std::uintptr_t>(file.get()) | 1ULL << r.value;
            t.expectRefused({.handle = reinterpret_cast<HANDLE>(handle)});
          });
  add("a closed handle is refused", [](auto& t) { t.expectRefused({.isClosed = true}); });
  add("a handle of a folder is refused", [](auto& t) {
    const file_handle folder(openFile(t.folder.path, FILE_FLAG_BACKUP_SEMANTICS));
    const HRESULT result = t.send(t.newFile(), {.handle = folder.get()}).result;
    expect(result < 0, "a refusal");
    t.choice = hex(result);
  });
  add("a handle of a pipe is refused", [](auto& t) {
    HANDLE ends[2] = {INVALID_HANDLE_VALUE, INVALID_HANDLE_VALUE};
    CreatePipe(&ends[0], &ends[1], nullptr, 0);
    const file_handle reading(ends[0]);
    const file_handle writing(ends[1]);
    t.expectRefused({.handle = ends[0]});
  });
  add("a handle of a connection is refused", [](auto& t) {
    const file_handle port(t.connect());
    t.expectRefused({.handle = port.get()});
  });
  add("a handle of a file on another volume is refused", [=](auto& t) {
    if (isOneVolume) throw untried{"both folders lie on one volume"};
    const file_handle other(openFile(t.backing(1)));
    t.expectRefused({.handle = other.get()});
  });
  add("a backing file that is the local file is refused", [](auto& t) {
    const std::wstring itself = zan::widePath(fs::absolute(t.nextFile()));
    expectFailure(t, t.newFile(tagFor(itself)), false);
  });
  addEach("a tag of {} bytes is refused", {0, 36, 16375, 16377}, [](auto& t, auto& r) {
    std::string tag = t.tagOf(5000);
    tag.resize(static_cast<std::size_t>(r.value));
    expectFailure(t, t.newFile(tag), false);
  });
  addEach("a tag with {} is refused",
          {{"another tag", 1, offsetof(RestoreTagRecord, tag)},
           {"another dataLength", 1, offsetof(RestoreTagRecord, dataLength)},
           {"another guid", 1, offsetof(RestoreTagRecord, guid) + 14},
           {"pathOffset 0", 8, offsetof(RestoreTagRecord, pathOffset)},
           {"pathOffset 9", 1, offsetof(RestoreTagRecord, pathOffset)},
           {"pathOffset 0xffff", 0xFFF7, offsetof(RestoreTagRecord, pathOffset)},
           {"an odd pathLength", 1, offsetof(RestoreTagRecord, pathLength)},
           {"a pathLength beyond the path", 0x4000, offsetof(RestoreTagRecord, pathLength)},
           {"a pathLength beyond the tag", 0x8000, offsetof(RestoreTagRecord, pathLength)}},
          [](auto& t, auto& r) { expectFailure(t, t.newFile(changedTag(t, r)), false); });
  addEach("a tag with {} restores nothing",
          {{"an empty path", 0, offsetof(RestoreTagRecord, pathLength)},
           {"a zero in its path", 0, offsetof(RestoreTagRecord, path) + 8}},
          [](auto& t, auto& r) {
            expectFailure(t, t.newFile(t.tagOf(5000).replace(r.offset, 2, 2, '\0')));
          });
  addEach("n = {}", {INT_MIN, -1, 0}, [](auto& t, auto& r) {
    t.choice = hex(t.start(t.newFile(5000), static_cast<std::int32_t>(r.value)));
  });
  addPing();

  heading = "Rights";
  add("a tag gives nobody what he may not read",
      [](auto&) { throw untried{"it takes a second user"}; });

  heading = "The answer";
  addEach("a reply buffer of {} bytes gets what fits", {0, 8, 15, 16, 100}, [](auto& t, auto& r) {
    const fs::path file = newlyRestored(t, 5000);
    const auto room = static_cast<std::size_t>(r.value);
    const answer full = t.send(file, {.operation = QueryProgress, .room = sizeof(ProgressInfo)});
    const answer came = t.send(file, {.operation = QueryProgress, .room = room});
    expect(came.result, S_OK);
    expect(came.reply == full.reply.substr(0, room), "as much of the 16 bytes as fits");
  });

  heading = "What a filter does, message by state";
  const std::vector<row> operations = {{"ping", 0}, {"start", 1}, {"stop", 2}, {"query", 3}};
  const auto addState = [&](const char* text, auto bring) {
    addEach(text, operations, [bring](auto& t, auto& r) {
      bring(t, [&](const fs::path& file) { t.tell(file, static_cast<ControlOperation>(r.value)); });
    });
  };
  addState("has no tag: {}", [](auto& t, auto tell) { tell(t.newFile()); });
  addState("is tagged and idle: {}", [](auto& t, auto tell) { tell(t.newFile(5000)); });
  addState("is being restored: {}", [](auto& t, auto tell) { t.whileRestoring(tell); });
  addState("was stopped: {}", [](auto& t, auto tell) { tell(stopped(t).first); });
  addState("is whole: {}", [](auto& t, auto tell) {
    const fs::path file = newlyRestored(t, 5000);
    tell(file);
    t.expectContent(file, 5000);
  });
  addState("has failed: {}", [](auto& t, auto tell) {
    const fs::path file = t.newFile(tagFor(t.prefix + L"missing"));
    expectFailure(t, file);
    tell(file);
  });
  addEach("was deleted: {}", operations, [](auto& t, auto& r) {
    const fs::path file = t.newFile(5000);
    const file_handle open(openFile(file));
    t.remove(file);
    const auto operation = static_cast<ControlOperation>(r.value);
    t.choice = hex(t.send(t.newFile(), {.operation = operation, .handle = open.get()}).result);
  });
  addEach("a backing file that is {} restores nothing", {{"missing", 0}, {"a folder", 1}},
          [](auto& t, auto& r) {
            expectFailure(t, t.newFile(tagFor(t.prefix + (r.value == 0 ? L"missing" : L"folder"))));
          });
  addEach("a file of {} bytes is restored",
          {1, 4095, 4096, 4097, mebibyte - 1, mebibyte, mebibyte + 1, severalChunks},
          [](auto& t, auto& r) { newlyRestored(t, static_cast<std::uint64_t>(r.value)); });
  addEach("{} files are restored at once", {8, 50},
          [](auto& t, auto& r) { restoreAtOnce(t, r.value); });
  add("the backing file is empty", [](auto& t) {
    const fs::path file = t.newFile(std::uint64_t{0});
    expect(t.start(file), S_OK);
    t.tell(file, QueryProgress);
    t.expectContent(file, 0);
  });
  addEach("a start with n = {} restores the file", {1, 4}, [](auto& t, auto& r) {
    t.restore(t.newFile(severalChunks), severalChunks, static_cast<std::int32_t>(r.value));
  });
  addEach("n = {}", {64, INT_MAX}, [](auto& t, auto& r) {
    const fs::path file = t.newFile(severalChunks);
    const HRESULT result = t.start(file, static_cast<std::int32_t>(r.value));
    if (result == S_OK) t.untilWhole(file, severalChunks);
    t.choice = hex(result);
  });
  add("a start is answered when the restoration has begun", [](auto& t) {
    try {
      t.whileRestoring([](auto&) {});
    } catch (const untried&) {
      throw violation{"an answer before 1 GiB is whole"};
    }
  });
  add("nothing is written when a stop has been answered", [](auto& t) {
    const fs::path file = stopped(t).first;
    const std::string content = contentOf(file);
    pauseFor(1s);
    expect(contentOf(file) == content, "the same content one second later");
  });
  add("a start after a stop ends with the whole file", [](auto& t) {
    const auto [file, size] = stopped(t);
    t.restore(file, size);
  });
  add("a start after a failure ends with the whole file", [](auto& t) {
    const fs::path file = t.newFile(777);
    fs::remove(t.backing(777));
    expectFailure(t, file);
    t.backing(777);
    t.restore(file, 777);
  });
  addEach("a file that was {}, is deleted and made anew is another file",
          {{"whole", 0}, {"being restored", 1}}, [](auto& t, auto& r) {
            const fs::path file =
                r.value == 0 ? newlyRestored(t, 4097) : t.whileRestoring([](auto&) {}).first;
            t.remove(file);
            t.rename(t.newFile(5000), file);
            t.restore(file, 5000);
          });
  add("a file that is renamed with its tag is restored", [](auto& t) {
    const fs::path file = t.newFile(5000);
    t.rename(file, t.nextFile());
    t.restore(t.nextFile(), 5000);
  });
  addPing();

  heading = "The tag";
  add("the path ends where pathLength says", [](auto& t) {
    std::string tag = t.tagOf(5000);
    tag[offsetof(RestoreTagRecord, path) + 2 * toNtPath(t.prefix + L"5000").size()] = 'x';
    t.restore(t.newFile(tag), 5000);
  });
  add("the tag's strategy does not bind a start", [](auto& t) {
    std::string tag = t.tagOf(5000);
    tag.replace(offsetof(RestoreTagRecord, strategy), sizeof(RestoreStrategy),
                sizeof(RestoreStrategy), '\0');
    t.restore(t.newFile(tag), 5000);
  });
  add("the tag stays when the file is whole", [](auto& t) {
    expect(contentOf(tagOn(newlyRestored(t, 5000))) == t.tagOf(5000),
           "the 16376 bytes that it had");
  });
  add("a tag that is replaced counts", [](auto& t) {
    const fs::path file = t.newFile(5000);
    t.send(file, {QueryProgress});
    writeTag(file, t.tagOf(4097), OPEN_EXISTING);
    t.restore(file, 4097);
  });
  addPing();
  return all;
}
