// Every call of every command fails, with every code that matters for it, and
// every allocation fails; after each the world must be whole.

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

#include "platform/scripted/attached_machine.h"
#include "platform/scripted/failing_allocation.h"
#include "platform/scripted/machine.h"

using namespace scripted;

namespace {

const std::wstring commands[] = {
    L"new|c:\\dir\\\x4E2D|simple|4", L"new|\\\\server\\share\\file", L"f|c:\\x",     L"--ping|f",
    L"--startAggressiveRestore|4|f", L"--stopAggressiveRestore|f",   L"--progress|f"};

const std::wstring tagStream = L"new:restore_filter_tag:$DATA";

std::vector<DWORD> codesFor(const std::string& call) {
  if (call == "WriteFile") return {5, 112, scripted::shortWrite};
  if (call == "QueryDosDeviceW") return {2, 8, ERROR_INSUFFICIENT_BUFFER};
  if (call == "FindNextVolumeW") return {5, ERROR_NO_MORE_FILES, ERROR_MORE_DATA};
  if (call == "FilterInstanceFindFirst" || call == "FilterInstanceFindNext") {
    return {0x801F0013, 0x80070005, 0x8007007A, 0x80070103, 0x7A, 0x103};
  }
  if (call == "FilterSendMessage") return {1, 0x103, 0x80070005, 0x80070006, 0xFFFFFFFF};
  if (call.starts_with("Filter")) return {0x80070002, 0x80070005, 0xFFFFFFFF};
  return {2, 5, 0x50};
}

std::ptrdiff_t indexOf(const std::string& call) {
  return std::find(now.calls.begin(), now.calls.end(), call) - now.calls.begin();
}

const std::string id = "Volume\\{.{36}\\}";
const std::string portName = "\\\\zan_restore_filter-" + id;

const std::regex traceLine(
    "(FilterConnectCommunicationPort failed: portName = " + portName + ", error = 0x|" +
    "CloseHanle failed: portName = " + portName + ", error = 0x|" +
    "Find(FirstVolume falied|NextVolume failed|VolumeClose falied): hr = 0x|" +
    "FilterInstanceFind(First|Next|Close) failed: status = 0x)[0-9a-f]{1,8}\n|" +
    R"(QueryDosDevice failed: hr = 0x[0-9a-f]{1,8}, vol = \\\\\?\\)" + id + "\n");

// The console of a run, with the lines of Boost's diagnosis of a failed send.
std::regex consoleWith(const std::string& diagnosis) {
  return std::regex(
      "(volume is: " + id + "\n)?" +  //
      "(checking instance for volume: (" + id + ")? - [^\n]*\n)*" +
      "(sending to instance to port: " + portName + "\n)?" +
      "(message not sent to port: " + portName + "\n" + diagnosis + ")?" +
      "((create (local file|tag stream) failed: |writing tag stream failed: )[0-9a-f]+\n|" +
      "writing tag stream failed - incomplete write: \n|create tag stream: [^\n]*\n|" +
      "Cannot (open local file|determine volume id): path = f\n|no filter instance found for "
      "f\n)?" +
      "(queryProgress failed\n|progress: 0x[0-9a-f]+ of 0x[0-9a-f]+\n)?");
}
const std::regex wholeConsole = consoleWith("([^\n]+\n){4}\n");
// Boost leaves out of its diagnosis what it has no memory for.
const std::regex consoleWithoutMemory = consoleWith("([^\n]*\n){0,5}");

// What must hold whatever failed.
void expectWholeWorld(const std::wstring& words, const outcome& done, const std::regex& console) {
  EXPECT_TRUE(now.open.empty());
  for (const std::string& call : now.calls) {
    EXPECT_EQ(call.find(" ?"), call.npos) << "a closed handle was used: " << call;
  }
  const bool closesPort = indexOf("CloseHandle port") < std::ssize(now.calls);
  if (closesPort) {
    EXPECT_LT(indexOf("CloseHandle f"), indexOf("CloseHandle port"));
  }
  for (const std::string& trace : now.traces) {
    EXPECT_TRUE(std::regex_match(trace, traceLine)) << trace;
  }
  EXPECT_TRUE(std::regex_match(done.output, console)) << done.output;

  EXPECT_TRUE(now.files.contains(L"f"));
  bool hasSucceeded = now.delivered == 1;
  if (words.starts_with(L"new")) {
    hasSucceeded = now.content[tagStream].size() == 16376;
    const bool isKept = now.uses["DeleteFileW"] == 1 && now.failing.contains("DeleteFileW");
    EXPECT_EQ(now.files.contains(L"new"), hasSucceeded || isKept);
    EXPECT_TRUE(isKept || now.files.contains(tagStream) == hasSucceeded);
  }
  EXPECT_EQ(done.status, hasSucceeded ? 0 : 1) << done.output;
}

}  // namespace

TEST(Faults, EveryCallOfEveryCommandFailsInEveryWay) {
  int faults = 0;
  for (const std::wstring& words : commands) {
    now = attachedMachine();
    run(words);
    for (const auto& [call, uses] : std::map(now.uses)) {
      for (int use = 0; use <= uses; ++use) {  // 0: every use
        for (const DWORD code : codesFor(call)) {
          const std::string key = use == 0 ? call : call + '#' + std::to_string(use);
          SCOPED_TRACE(utf8(words) + ", " + key);
          for (const bool cleanUpFails : {false, true}) {
            now = attachedMachine();
            now.failing = {{key, code}};
            if (cleanUpFails) now.failing.insert({{"DeleteFileW", 5}, {"CloseHandle", 6}});
            expectWholeWorld(words, run(words), wholeConsole);
            ++faults;
          }
        }
      }
    }
  }
  std::cout << "survived " << faults << " failing calls\n";
}

TEST(Faults, EveryAllocationOfEveryCommandFails) {
  int faults = 0;
  const std::map<std::string, DWORD> worlds[] = {
      {},
      {{"FilterSendMessage", 0x80070005}},
      {{"FilterConnectCommunicationPort", 0x80070002}, {"QueryDosDeviceW#1", 122}},
      {{"FilterInstanceFindFirst#1", 0x8007007A}, {"FindVolumeClose", 6}, {"CloseHandle", 6}},
  };
  for (const std::wstring& words : commands) {
    for (const auto& failing : worlds) {
      int index = 0;
      do {
        now = attachedMachine();
        now.failing = failing;
        SCOPED_TRACE(utf8(words) + ", allocation " + std::to_string(++index));
        expectWholeWorld(words, run(words, index), consoleWithoutMemory);
      } while (index <= allocations());
      faults += index - 1;
    }
  }
  std::cout << "survived " << faults << " failing allocations\n";
}
