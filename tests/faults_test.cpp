// Every call of every command fails, with every code that matters for it, and
// every allocation fails; after each the world must be whole.

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>

#include "tests/failing_allocation.h"
#include "tests/scripted_machine.h"

using namespace scripted;

namespace {

const std::wstring commands[] = {
    L"new|c:\\dir\\\x4E2D|simple|4", L"new|\\\\server\\share\\file", L"f|c:\\x",     L"--ping|f",
    L"--startAggressiveRestore|4|f", L"--stopAggressiveRestore|f",   L"--progress|f"};

const std::wstring tagStream = L"new:restore_filter_tag:$DATA";

std::vector<DWORD> codesFor(const std::string& call) {
  if (call.starts_with("Filter")) return {0x80070006, 0x8007007A, 0x80070103, 0x801F0013, 0x103};
  return {2, 5, 8, 0x50, ERROR_NO_MORE_FILES, ERROR_INSUFFICIENT_BUFFER, shortWrite};
}

std::map<std::string, std::ptrdiff_t> usesOfAll() {
  std::map<std::string, std::ptrdiff_t> all;
  for (const std::string& line : now.calls) ++all[line.substr(0, line.find(' '))];
  return all;
}

// What must hold whatever failed.
void expectWholeWorld(const std::wstring& words, const outcome& done) {
  EXPECT_TRUE(now.open.empty());
  for (const std::string& call : now.calls) {
    EXPECT_EQ(call.find(" ?"), call.npos) << "a closed handle was used: " << call;
  }
  const auto portClosed = std::find(now.calls.begin(), now.calls.end(), "CloseHandle port");
  EXPECT_TRUE(portClosed == now.calls.end() ||
              std::find(now.calls.begin(), portClosed, "CloseHandle f") != portClosed);
  for (const std::string& trace : now.traces) EXPECT_TRUE(trace.ends_with('\n')) << trace;
  EXPECT_TRUE(done.output.empty() || done.output.ends_with('\n')) << done.output;

  EXPECT_TRUE(now.files.contains(L"f"));
  bool hasSucceeded = now.delivered == 1;
  if (words.starts_with(L"new")) {
    const auto tag = now.files.find(tagStream);
    hasSucceeded = tag != now.files.end() && tag->second.size() == 16376;
    const bool isKept = uses("DeleteFileW") == 1 && now.failing.contains("DeleteFileW");
    EXPECT_EQ(now.files.contains(L"new"), hasSucceeded || isKept);
    EXPECT_TRUE(isKept || (tag != now.files.end()) == hasSucceeded);
  }
  EXPECT_EQ(done.status, hasSucceeded ? 0 : 1) << done.output;
}

}  // namespace

TEST(Faults, EveryCallOfEveryCommandFailsInEveryWay) {
  int faults = 0;
  for (const std::wstring& words : commands) {
    now = attachedMachine();
    run(words);
    for (const auto& [call, most] : usesOfAll()) {
      for (std::ptrdiff_t use = 0; use <= most; ++use) {  // 0: every use
        for (const DWORD code : codesFor(call)) {
          const std::string key = use == 0 ? call : call + '#' + std::to_string(use);
          SCOPED_TRACE(utf8(words) + ", " + key);
          for (const bool cleanUpFails : {false, true}) {
            now = attachedMachine();
            now.failing = {{key, code}};
            if (cleanUpFails) now.failing.insert({{"DeleteFileW", 5}, {"CloseHandle", 6}});
            expectWholeWorld(words, run(words));
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
  const std::string outOfMemory = std::string("zan_restore: ") + std::bad_alloc().what() + '\n';
  const std::map<std::string, DWORD> worlds[] = {
      {},
      {{"FilterSendMessage", 0x80070005}},
      {{"FilterConnectCommunicationPort", 0x80070002}, {"QueryDosDeviceW#1", 122}},
      {{"FilterInstanceFindFirst#1", 0x8007007A}, {"FindVolumeClose", 6}, {"CloseHandle", 6}},
  };
  for (const std::wstring& words : commands) {
#ifdef _MSC_VER  // its std::list allocates when it is made, and so ends a noexcept lookup
    if (words.starts_with(L"--")) continue;
#endif
    for (const auto& failing : worlds) {
      int index = 0;
      int ends = 0;  // of the whole program
      do {
        now = attachedMachine();
        now.failing = failing;
        SCOPED_TRACE(utf8(words) + ", allocation " + std::to_string(++index));
        const outcome done = run(words, index);
        expectWholeWorld(words, done);
        // Either the program made do without, or it says so and nothing else.
        EXPECT_TRUE(now.errors.empty() || now.errors == outOfMemory);
        ends += now.errors.empty() ? 0 : 1;
      } while (index <= allocations);
      faults += index - 1;
      EXPECT_TRUE(ends > 0 || allocations == 0);  // none under valgrind, which takes its own new
    }
  }
  std::cout << "survived " << faults << " failing allocations\n";
}
