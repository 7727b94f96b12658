// The program over the scripted machine: what it calls, prints and writes.

#include <windows.h>
// after <windows.h>:
#include <gtest/gtest.h>

#include <iostream>
#include <regex>
#include <sstream>
#include <tuple>

#include "app/commands.h"
#include "tests/scripted_machine.h"

using namespace scripted;

namespace {

using lines = std::vector<std::string>;
using codes = std::map<std::string, DWORD>;

const std::string usage =
    "zan_restore file rp [ 'simple' n ]\n"
    "\n"
    "Where\n"
    "\n"
    "\tfile is the path to a local file that will be recovered\n"
    "\trp is the path to the backing data file: \\\\server\\<path> or c:\\dir\\foo.txt\n"
    "\tsimple indicates an aggressive restore with n concurrent backing reads\n"
    "\n"
    "zan_restore [ --startAggressiveRestore n | --stopAggressiveRestore | --progress ] file\n"
    "\n"
    "\tReport progress of or start or stop aggressive restoration of a filtered file\n"
    "\tn = number of concurrent backing file reads\n"
    "\n";

const std::string id = "Volume{abcdefab-3333-3333-3333-333333333333}";
const std::string port = "\\zan_restore_filter-" + id;
const std::string volumeIs = "volume is: " + id + "\n";
const std::string checking = "checking instance for volume: ";
const std::string checksSecond = checking + utf8(secondVolume) + " - \\Device\\V2\n";
const std::string checksThird = checking + id + " - \\Device\\V3\n";
const std::string checksFirst = checking + utf8(firstVolume) + " - \\Device\\V1\n";
const std::string sent =
    volumeIs + checksSecond + checksThird + "sending to instance to port: " + port + "\n";
const std::string noInstance = "no filter instance found for f\n";
const std::string noVolume = "Cannot determine volume id: path = f\n";
const std::string query = "03000000000000000000000000000000 10";
const std::string notSent = "message not sent to port: " + port + "\n";

outcome runOn(const machine& given, const std::wstring& words, const codes& failing = {}) {
  world = given;
  world.failing = failing;
  return run(words);
}

std::string tagOf(const std::wstring& file) {
  return world.files[file + L":restore_filter_tag:$DATA"];
}

}  // namespace

TEST(CommandLine, MalformedPrintsTheUsageAndTouchesNothing) {
  for (const wchar_t* words :
       {L"", L"--progress", L"--ping", L"--stopAggressiveRestore", L"--startAggressiveRestore",
        L"--startAggressiveRestore|4", L"--startAggressiveRestore|4|f|extra",
        L"--startAggressiveRestore|x|f", L"f", L"f|rp|simple", L"f|rp|simple|4|extra",
        L"f|rp|simple|", L"f|rp|simple|- 4", L"f|rp|simple|2147483648", L"f|rp|simple|-2147483649",
        L"f|rp|simple|99999999999999999999", L"f||simple|x"}) {
    const outcome done = runOn({}, words);
    EXPECT_EQ(done.status, 1);
    EXPECT_EQ(done.output, usage);
    EXPECT_TRUE(world.calls.empty());
  }
}

TEST(CommandLine, AnyOtherFirstWordIsALocalFile) {
  const std::string none(8, '\0');
  const std::pair<std::wstring, std::string> table[] = {
      {L"--Progress|file", none},
      {L"--ping |x", none},
      {L"--stopAggressiveRestores|x", none},
      {L"--startAggressiveRestore4|x|any| \t+12abc", {"\1\0\0\0\x0C\0\0\0", 8}},
      {L"f|rp|simple|0x10", {"\1\0\0\0\0\0\0\0", 8}},
      {L"f|rp|simple|2147483647", {"\1\0\0\0\xFF\xFF\xFF\x7F", 8}},
      {L"f|rp||-2147483648", {"\1\0\0\0\0\0\0\x80", 8}},
  };
  for (const auto& [words, strategy] : table) {
    EXPECT_EQ(runOn({}, words).status, 0);
    EXPECT_EQ(tagOf(words.substr(0, words.find(L'|'))).substr(28, 8), strategy);
  }
}

TEST(Output, TearsNoSurrogatePairWhereverItsBufferEnds) {
  for (std::size_t before = 505; before < 520; ++before) {
    std::wstring path = std::wstring(before, L'x') + std::wstring(1024, L'\x4E2D');
    std::string expected(before, 'x');
    for (int i = 0; i < 1024; ++i) expected += "\u4E2D";
    for (int i = 0; i < 300; ++i) {
      path += L"\xD800\xDC00\xDBFF\xDFFF";
      expected += "\U00010000\U0010FFFF";
    }
    EXPECT_EQ(runOn({}, L"f|" + path).output, "create tag stream: " + expected + "\n");
  }
}

TEST(Output, IsTheNtPath) {
  const std::pair<std::wstring, std::string> table[] = {
      {L"c:\\dir\\foo.txt", "\\??\\c:\\dir\\foo.txt"},
      {L"c:foo/.\\..\\", "\\??\\c:foo/.\\..\\"},
      {L"\\:x", "\\??\\\\:x"},
      {L"\\\\server\\share\\foo.txt", "\\Device\\Mup\\server\\share\\foo.txt"},
      {L"\\\\", "\\Device\\Mup\\"},
      {L"\\dir\\foo.txt", "\\dir\\foo.txt"},
      {L"::x", "::x"},
      {L"ab:c", "ab:c"},
      {L"lone \xD800!\xD83D", "lone \uFFFD!\uFFFD"},
  };
  for (const auto& [given, expected] : table) {
    EXPECT_EQ(runOn({}, L"f|" + given).output, "create tag stream: " + expected + "\n");
  }
  machine console;
  console.hasConsole = true;
  EXPECT_EQ(runOn(console, L"f|\xE9\xD83D\xDE00").output, "");
  EXPECT_EQ(world.console, L"create tag stream: \xE9\xD83D\xDE00\n");
}

TEST(SetUp, WritesTheRecordByteForByte) {
  ASSERT_EQ(runOn({}, L"f|c:\\\x4E2D\xD83D\xDE00|any|-3").status, 0);
  const std::string path("\\\0?\0?\0\\\0c\0:\0\\\0\x2D\x4E\x3D\xD8\x00\xDE", 20);
  const std::string header(
      "\x53\0\0\0\xE0\x3F\0\0\xDA\x13\x29\x5E\xEE\xEA\xCB\x47\xB8\x66\xED\xDC\xAE\xB3\xEB\xC3"
      "\x08\0\x14\0\x01\0\0\0\xFD\xFF\xFF\xFF",
      36);
  EXPECT_EQ(tagOf(L"f"), header + path + std::string(16376 - 36 - 20, '\0'));
}

TEST(SetUp, TakesPathsUpToTheLimitOfTheRecord) {
  const std::pair<std::wstring, std::size_t> table[] = {
      {L"c:", 8164}, {L"\\\\", 8158}, {L"", 8168}};
  for (const auto& [start, most] : table) {
    const std::wstring longest = L"f|" + start + std::wstring(most - start.size() - 2, L'x');
    EXPECT_EQ(runOn({}, longest + L"\xD83D\xDE00").status, 0);
    EXPECT_EQ(tagOf(L"f").substr(26, 2), "\xD0\x3F");
    EXPECT_EQ(tagOf(L"f").substr(16368), std::string("\x3D\xD8\x00\xDE\0\0\0\0", 8));
    for (const std::wstring& words : {longest + L"xxx", std::wstring(L"f|")}) {
      const outcome done = runOn({}, words);
      EXPECT_EQ(done.status, 1);
      EXPECT_EQ(done.output, "");
      EXPECT_EQ(world.calls, lines{});
    }
  }
}

TEST(SetUp, MakesTheseCallsAndLeavesNothingBehindAFailure) {
  const std::string stream = "f:restore_filter_tag:$DATA";
  const lines calls{"CreateFileW f 10000000 3 1 80",
                    "CloseHandle f",
                    "CreateFileW " + stream + " 10000000 0 1 80",
                    "WriteFile " + stream + " 3ff8",
                    "CloseHandle " + stream,
                    "DeleteFileW f"};
  // How many of the calls are made, and whether the file is deleted.
  const std::tuple<codes, std::string, std::ptrdiff_t, bool> table[] = {
      {{}, "create tag stream: \\??\\c:\\x\n", 5, false},
      {{{"CreateFileW#1", 0x50}}, "create local file failed: 50\n", 1, false},
      {{{"CreateFileW#2", 0x1abc}}, "create tag stream failed: 1abc\n", 3, true},
      {{{"WriteFile", 112}}, "writing tag stream failed: 70\n", 5, true},
      {{{"WriteFile", shortWrite}}, "writing tag stream failed - incomplete write: \n", 5, true},
  };
  for (const auto& [failing, output, count, isDeleted] : table) {
    const outcome done = runOn({}, L"f|c:\\x", failing);
    EXPECT_EQ(done.status, failing.empty() ? 0 : 1);
    EXPECT_EQ(done.output, output);
    lines expected(calls.begin(), calls.begin() + count);
    if (isDeleted) expected.push_back(calls.back());
    EXPECT_EQ(world.calls, expected);
  }
}

TEST(Control, MakesTheseCallsInThisOrder) {
  machine given = attachedMachine();
  given.instances.resize(1);
  given.mountedVolume = nameOfVolume(secondVolume);
  EXPECT_EQ(runOn(given, L"--ping|f|ignored").status, 0);
  const lines expected{"CreateFileW f 80000000 7 3 80",
                       "GetVolumePathNameW f 105",
                       "GetVolumeNameForVolumeMountPointW C:\\ 32",
                       "FilterInstanceFindFirst zan_restore_filter 3 200",
                       "FindFirstVolumeW 104",
                       "QueryDosDeviceW " + utf8(firstVolume) + " 104",
                       "FindNextVolumeW volumes 104",
                       "QueryDosDeviceW " + utf8(secondVolume) + " 104",
                       "FindVolumeClose volumes",
                       "FilterInstanceFindNext instances 3 200",
                       "FilterInstanceFindClose instances",
                       "FilterConnectCommunicationPort \\zan_restore_filter-" + utf8(secondVolume) +
                           " 0 " + std::string(80, '0'),
                       "FilterSendMessage port f " + std::string(32, '0') + " 0",
                       "CloseHandle f",
                       "CloseHandle port"};
  EXPECT_EQ(world.calls, expected);
  EXPECT_TRUE(world.traces.empty());
}

TEST(Control, SendsTheseBytesAndPrintsTheReply) {
  const std::tuple<std::wstring, std::string, std::string, std::string> table[] = {
      {L"--ping|f", "00000000000000000000000000000000 0", "", sent},
      {L"--stopAggressiveRestore|f|x", "02000000000000000000000000000000 0", "", sent},
      {L"--startAggressiveRestore|4|f", "01000000010000000400000000000000 0", "", sent},
      {L"--startAggressiveRestore|-3|f", "0100000001000000fdffffff00000000 0", "", sent},
      {L"--progress|f|x", query, {"\0\x1A", 2}, "progress: 0x1a00 of 0x0\n"},
      {L"--progress|f",
       query,
       {"\0\x10\0\0\0\0\0\0\0\0\x10\0\0\0\0\x80", 16},
       "progress: 0x1000 of 0x8000000000100000\n"},
  };
  for (const auto& [words, message, reply, output] : table) {
    machine given = attachedMachine();
    given.reply = reply;
    EXPECT_EQ(runOn(given, words).output, output);
    EXPECT_EQ(world.calls.at(world.calls.size() - 3), "FilterSendMessage port f " + message);
  }
}

TEST(Control, PrintsItsStepsAndItsFailures) {
  const std::string connect = "FilterConnectCommunicationPort";
  const std::string failed = " failed: portName = " + port + ", error = 0x";
  const std::wstring upper = L"Volume{ABCDEFAB-3333-3333-3333-333333333333}";
  const std::wstring twice = (L"x Volume " + fileVolume).substr(0, 50);
  const std::wstring late = (L"0123456789" + fileVolume).substr(0, 50);
  const std::string none = "\n" + checksSecond + checksThird + checksFirst + noInstance;
  const std::string unresolved = checking + " - \\Device\\V";
  const struct {
    std::string output;  // of a ping
    codes failing;
    std::wstring mountedVolume = nameOfVolume(fileVolume);
    std::string trace{};
  } table[] = {
      {sent, {{connect, 1}}},
      {sent, {{"CloseHandle", 0x1F}}, nameOfVolume(fileVolume), "CloseHanle" + failed + "1f\n"},
      {"Cannot open local file: path = f\n", {{"CreateFileW", 2}}},
      {noVolume, {{"GetVolumePathNameW", 1}}},
      {noVolume, {{"GetVolumeNameForVolumeMountPointW", 1}}},
      {noVolume, {}, L"\\\\?\\volume{abcdefab}\\"},
      {"volume is: " + utf8(twice.substr(2, 44)) + none, {}, twice},
      {"volume is: " + utf8(late.substr(10)) + none, {}, late},
      {"volume is: " + utf8(upper) + none, {}, nameOfVolume(upper)},
      {volumeIs + noInstance, {{"FilterInstanceFindFirst", 0x801F0013}}},
      {volumeIs + checksSecond + noInstance, {{"FilterInstanceFindNext", 0x80070005}}},
      {volumeIs + unresolved + "2\n" + unresolved + "3\n" + unresolved + "1\n" + noInstance,
       {{"FindFirstVolumeW", 5}}},
      {sent + notSent + "<0x80070005>\n", {{"FilterSendMessage", 0x80070005}}},
      {sent + notSent + "<0x1f>\n", {{"FilterSendMessage", 0x1F}}},
      {sent + notSent + "<0x80070006>\n",
       {{connect, 0x80070002}},
       nameOfVolume(fileVolume),
       connect + failed + "80070002\n"},
  };
  const std::regex diagnosis(
      ".*fsfilter.filter_port.cpp\\(52\\): Throw in function .*sendMessage.*\n"
      "Dynamic exception type: .*wrapexcept.*result_exception.*\n"
      "std::exception::what: .+\n"
      "(0x[0-9a-f]+)\\[.*errinfo_api_function_.*\\] = FilterSendMessage\n\n");
  const std::regex step("(volume is|checking instance for|sending to instance).*\n");
  for (const auto& row : table) {
    machine given = attachedMachine();
    given.mountedVolume = row.mountedVolume;
    const bool isSent = row.output == sent;
    for (const bool isQuery : {false, true}) {
      const outcome done = runOn(given, isQuery ? L"--progress|f" : L"--ping|f", row.failing);
      EXPECT_EQ(done.status, isSent ? 0 : 1);
      std::string expected = row.output;
      if (isQuery) {
        expected = std::regex_replace(expected, step, "") +
                   (isSent ? "progress: 0x0 of 0x0\n" : "queryProgress failed\n");
      }
      EXPECT_EQ(std::regex_replace(done.output, diagnosis, "<$1>\n"), expected);
      EXPECT_EQ(uses(connect), row.output.starts_with(sent) ? 1 : 0);
      EXPECT_TRUE(row.trace.empty() || world.traces == lines{row.trace});
    }
  }
}

TEST(Control, ChecksTheRequestBeforeTheFile) {
  const auto print = [](std::uint32_t operation, std::uint32_t kind) {
    world = attachedMachine();
    std::wstringbuf captured;
    std::wstreambuf* const previous = std::wcout.rdbuf(&captured);
    const RestoreStrategy strategy{RestoreStrategyKind(kind), 0};
    const int status = sendControlRequest(L"f", {ControlOperation(operation), strategy});
    std::wcout.rdbuf(previous);
    EXPECT_EQ(world.calls.empty(), status == 1);
    return captured.str();
  };
  EXPECT_EQ(print(4, 0), L"Invalid operation\n");
  EXPECT_EQ(print(1, 2), L"Invalid restore strategy\n");
  EXPECT_TRUE(print(2, 2).starts_with(L"volume is"));
}
