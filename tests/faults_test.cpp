// Each call and each allocation of every command fails. After each, nothing may be half-made.

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "tests/scripted_machine.h"

using namespace scripted;

namespace {

using codes = std::map<std::string, DWORD>;

const std::wstring commands[] = {
    L"new|c:\\dir\\\x4E2D|simple|4", L"new|\\\\server\\share\\file", L"f|c:\\x",     L"--ping|f",
    L"--startAggressiveRestore|4|f", L"--stopAggressiveRestore|f",   L"--progress|f"};

std::vector<DWORD> codesFor(const std::string& call) {
  if (call.starts_with("Filter")) return {0x80070006, 0x8007007A, 0x80070103, 0x801F0013, 0x103};
  return {2, 5, 8, 0x50, ERROR_NO_MORE_FILES, ERROR_INSUFFICIENT_BUFFER, shortWrite};
}

// Runs a command where these calls and this allocation (0: none) fail.
void expectWholeWorld(const std::wstring& words, const codes& failing, int allocation = 0) {
  world = attachedMachine();
  world.failing = failing;
  const outcome done = run(words, allocation);
  SCOPED_TRACE(utf8(words) + ", " + failing.begin()->first + ", " + std::to_string(allocation));
  EXPECT_TRUE(world.open.empty());
  for (const std::string& call : world.calls) {
    EXPECT_EQ(call.find(" ?"), call.npos) << "a closed handle was used: " << call;
    const bool mayBeInvalid =
        call.starts_with("FilterInstanceFindClose") || call.starts_with("FilterSend");
    EXPECT_TRUE(mayBeInvalid || call.find(" invalid") == call.npos) << call;
  }
  const auto portClosed = std::find(world.calls.begin(), world.calls.end(), "CloseHandle port");
  EXPECT_TRUE(portClosed == world.calls.end() ||
              std::find(world.calls.begin(), portClosed, "CloseHandle f") != portClosed);
  for (const std::string& trace : world.traces) EXPECT_TRUE(trace.ends_with('\n')) << trace;
  EXPECT_TRUE(done.output.empty() || done.output.ends_with('\n')) << done.output;
  // The program either managed without the memory, or says only that it has none.
  const std::string outOfMemory = std::string("zan_restore: ") + std::bad_alloc().what() + '\n';
  EXPECT_TRUE(world.errors.empty() || world.errors == outOfMemory) << world.errors;

  EXPECT_TRUE(world.files.contains(L"f"));
  bool hasSucceeded = world.delivered == 1;
  if (words.starts_with(L"new")) {
    const auto tag = world.files.find(L"new:restore_filter_tag:$DATA");
    hasSucceeded = tag != world.files.end() && tag->second.size() == 16376;
    const bool isKept = uses("DeleteFileW") == 1 && failing.contains("DeleteFileW");
    EXPECT_EQ(world.files.contains(L"new"), hasSucceeded || isKept);
    EXPECT_TRUE(isKept || (tag != world.files.end()) == hasSucceeded);
  }
  EXPECT_EQ(done.status, hasSucceeded ? 0 : 1) << done.output;
  // A lookup that managed without the memory has said so.
  const bool isLookup = done.output.find("no filter instance") != done.output.npos;
  EXPECT_FALSE(isLookup && failing.contains("none") && world.traces.empty());
}

}  // namespace

TEST(Faults, EveryCallOfEveryCommandFails) {
  for (const std::wstring& words : commands) {
    world = attachedMachine();
    run(words);
    std::set<std::string> called;
    for (const std::string& line : world.calls) called.insert(line.substr(0, line.find(' ')));
    for (const std::string& call : called) {
      for (const char* use : {"", "#1", "#2", "#3"}) {
        for (const DWORD code : codesFor(call)) {
          expectWholeWorld(words, {{call + use, code}});
          expectWholeWorld(words, {{call + use, code}, {"DeleteFileW", 5}, {"CloseHandle", 6}});
        }
      }
    }
  }
}

TEST(Faults, EveryAllocationOfEveryCommandFails) {
  const codes worlds[] = {
      {{"none", 0}},
      {{"FilterSendMessage", 0x80070005}},
      {{"FilterConnectCommunicationPort", 0x80070002}, {"QueryDosDeviceW#1", 122}},
      {{"FilterInstanceFindFirst#1", 0x8007007A}, {"FindVolumeClose", 6}, {"CloseHandle", 6}},
  };
  for (const std::wstring& words : commands) {
#ifdef _MSC_VER  // its std::list allocates in its constructor, in a noexcept function
    if (words.starts_with(L"--")) continue;
#endif
    for (const codes& failing : worlds) {
      int ends = 0;  // how often the program ended for lack of memory
      for (int index = 1; index == 1 || index - 1 <= allocations; ++index) {
        expectWholeWorld(words, failing, index);
        ends += world.errors.empty() ? 0 : 1;
      }
      EXPECT_TRUE(ends > 0 || allocations == 0);  // valgrind replaces operator new: none counted
    }
  }
}
