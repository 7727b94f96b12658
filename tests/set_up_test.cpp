// The restore set-up over the scripted machine: calls, texts and bytes.

#include <gtest/gtest.h>

#include "platform/scripted/machine.h"
#include "restore/nt_path.h"
#include "zan_restore_filter.h"

using namespace scripted;

namespace {

using lines = std::vector<std::string>;

const lines createLocalFile{"CreateFileW f 10000000 3 - 1 80 -"};
const lines createAndClose{createLocalFile[0], "CloseHandle f"};
const std::string stream = "f:restore_filter_tag:$DATA";
const std::string createStream = "CreateFileW " + stream + " 10000000 0 - 1 80 -";
const std::string writeStream = "WriteFile " + stream + " 16376 -";
const std::string closeStream = "CloseHandle " + stream;

lines operator+(lines first, const lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

std::wstring units(std::size_t count) { return std::wstring(count, L'x'); }

std::string tagStream() { return now.content[L"f:restore_filter_tag:$DATA"]; }

}  // namespace

TEST(NtPath, GetsItsPrefixAndNothingElse) {
  const std::pair<std::wstring, std::wstring> table[] = {
      {L"c:\\dir\\foo.txt", L"\\??\\c:\\dir\\foo.txt"},
      {L"c:", L"\\??\\c:"},
      {L"c:foo/.\\..\\", L"\\??\\c:foo/.\\..\\"},
      {L"1:\\x", L"\\??\\1:\\x"},
      {L"c:\\a:b", L"\\??\\c:\\a:b"},
      {L"\\:x", L"\\??\\\\:x"},
      {L"\\\\server\\share\\foo.txt", L"\\Device\\Mup\\server\\share\\foo.txt"},
      {L"\\\\", L"\\Device\\Mup\\"},
      {L"\\\\?\\c:\\x", L"\\Device\\Mup\\?\\c:\\x"},
      {L"foo.txt", L"foo.txt"},
      {L"\\dir\\foo.txt", L"\\dir\\foo.txt"},
      {L"//server/share", L"//server/share"},
      {L":x", L":x"},
      {L"::x", L"::x"},
      {L"ab:c", L"ab:c"},
  };
  for (const auto& [given, expected] : table) EXPECT_EQ(toNtPath(given), expected);
}

TEST(SetUp, CreatesFileAndStreamAndTellsThePath) {
  now = {};
  const outcome done = run(L"f|c:\\dir\\foo.txt");
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output, "create tag stream: \\??\\c:\\dir\\foo.txt\n");
  const lines calls = createAndClose + lines{createStream, writeStream, closeStream};
  EXPECT_EQ(now.calls, calls);
}

TEST(SetUp, WritesTheRecordByteForByte) {
  now = {};
  ASSERT_EQ(run(L"f|c:\\\x4E2D\xD83D\xDE00|any|-3").status, 0);
  const std::string path("\\\0?\0?\0\\\0c\0:\0\\\0\x2D\x4E\x3D\xD8\x00\xDE", 20);
  const std::string header(
      "\x53\0\0\0\xE0\x3F\0\0\xDA\x13\x29\x5E\xEE\xEA\xCB\x47\xB8\x66\xED\xDC\xAE\xB3\xEB\xC3"
      "\x08\0\x14\0\x01\0\0\0\xFD\xFF\xFF\xFF",
      36);
  EXPECT_EQ(tagStream(), header + path + std::string(16376 - 36 - 20, '\0'));
}

TEST(SetUp, TakesPathsUpToTheLimitOfTheRecord) {
  const struct {
    std::wstring backing;
    std::size_t ntUnits;  // 0: refused
  } table[] = {
      {L"c:" + units(8162), 8168},
      {L"c:" + units(8163), 0},
      {L"\\\\" + units(8156), 8168},
      {L"\\\\" + units(8157), 0},
      {units(8168), 8168},
      {units(8169), 0},
      {L"", 0},
      {units(8166) + L"\xD83D\xDE00", 8168},
  };
  for (const auto& row : table) {
    now = {};
    const outcome done = run({L"f", row.backing});
    EXPECT_EQ(done.status, row.ntUnits == 0 ? 1 : 0);
    if (row.ntUnits == 0) {
      EXPECT_EQ(done.output, "");
      EXPECT_EQ(now.calls, lines{});
      continue;
    }
    ASSERT_EQ(tagStream().size(), 16376u);
    EXPECT_EQ(tagStream().substr(26, 2), "\xD0\x3F");
    EXPECT_NE(tagStream().substr(16370), std::string(6, '\0'));
    EXPECT_EQ(tagStream().substr(16372), std::string(4, '\0'));
  }
}

TEST(SetUp, LeavesNothingBehindAFailure) {
  const lines untilStream = createAndClose + lines{createStream};
  const lines untilWrite = untilStream + lines{writeStream, closeStream};
  const lines deletion{"DeleteFileW f"};
  const struct {
    std::map<std::string, DWORD> failing;
    std::string output;
    lines calls;
  } table[] = {
      {{{"CreateFileW#1", 0x50}}, "create local file failed: 50\n", createLocalFile},
      {{{"CreateFileW#2", 0x1abc}}, "create tag stream failed: 1abc\n", untilStream + deletion},
      {{{"WriteFile", 112}}, "writing tag stream failed: 70\n", untilWrite + deletion},
      {{{"WriteFile", scripted::shortWrite}, {"DeleteFileW", 5}},
       "writing tag stream failed - incomplete write: \n",
       untilWrite + deletion},
  };
  for (const auto& row : table) {
    now = {};
    now.failing = row.failing;
    const outcome done = run(L"f|c:\\x");
    EXPECT_EQ(done.status, 1);
    EXPECT_EQ(done.output, row.output);
    EXPECT_EQ(now.calls, row.calls);
  }
}
