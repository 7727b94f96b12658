#include "platform/wmain.h"

#include <cerrno>
#include <cstdint>
#include <cwchar>
#include <exception>
#include <iostream>
#include <string>

#include "app/commands.h"
#include "app/usage.h"
#include "app/wide_output.h"

namespace {

int usageError() {
  printUsage();
  return 1;
}

// Parses a decimal count after optional white space and a sign, and ignores what follows the
// digits. False if there is no digit or the value exceeds 32 bits.
bool parseCount(const wchar_t* text, std::int32_t& count) {
  wchar_t* end = nullptr;
  errno = 0;
  const long value = std::wcstol(text, &end, 10);
  if (end == text || errno == ERANGE || value < INT32_MIN || value > INT32_MAX) return false;
  count = static_cast<std::int32_t>(value);
  return true;
}

int printProgress(const wchar_t* file) {
  ProgressInfo info{};
  if (queryProgress(file, info) != 0) {
    std::wcout << L"queryProgress failed" << std::endl;
    return 1;
  }
  std::wcout << L"progress: 0x" << std::hex << info.progress << L" of 0x" << std::hex << info.total
             << std::endl;
  return 0;
}

int runCommand(int argc, wchar_t** argv) {
  if (argc < 2) return usageError();
  const std::wstring first = argv[1];

  if (first == L"--progress") return argc < 3 ? usageError() : printProgress(argv[2]);
  if (first == L"--ping") {
    return argc < 3 ? usageError()
                    : sendControlRequest(argv[2], {ControlOperation::Ping, RestoreStrategy{}});
  }
  if (first == L"--stopAggressiveRestore") {
    return argc < 3 ? usageError()
                    : sendControlRequest(
                          argv[2], {ControlOperation::StopAggressiveRestore, RestoreStrategy{}});
  }

  RestoreStrategy strategy{RestoreStrategyKind::simple, 0};
  if (first == L"--startAggressiveRestore") {
    if (argc != 4 || !parseCount(argv[2], strategy.concurrentReads)) return usageError();
    return sendControlRequest(argv[3], {ControlOperation::StartAggressiveRestore, strategy});
  }
  if (argc == 3) return prepareRestore(first, argv[2], RestoreStrategy{});
  // The strategy word, argv[3], is not examined: there is only one strategy.
  if (argc != 5 || !parseCount(argv[4], strategy.concurrentReads)) return usageError();
  return prepareRestore(first, argv[2], strategy);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  try {
    const zan::wide_output output;
    return runCommand(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "zan_restore: " << error.what() << std::endl;
    return 1;
  }
}
