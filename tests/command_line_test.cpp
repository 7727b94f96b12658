// The command line over the scripted machine, and the console it prints to.

#include <gtest/gtest.h>

#include <iostream>

#include "app/wide_output.h"
#include "platform/scripted/machine.h"

using namespace scripted;

namespace {

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

}  // namespace

TEST(CommandLine, MalformedPrintsTheUsageAndTouchesNothing) {
  const std::wstring table[] = {L"--progress",
                                L"--ping",
                                L"--stopAggressiveRestore",
                                L"--startAggressiveRestore",
                                L"--startAggressiveRestore|4",
                                L"--startAggressiveRestore|4|f|extra",
                                L"--startAggressiveRestore|x|f",
                                L"f",
                                L"f|rp|simple",
                                L"f|rp|simple|4|extra",
                                L"f|rp|simple|",
                                L"f|rp|simple|- 4",
                                L"f|rp|simple|2147483648",
                                L"f|rp|simple|-2147483649",
                                L"f|rp|simple|99999999999999999999",
                                L"f||simple|x"};
  EXPECT_EQ(run(std::vector<std::wstring>{}).output, usage);
  for (const std::wstring& arguments : table) {
    now = {};
    const outcome done = run(arguments);
    EXPECT_EQ(done.status, 1);
    EXPECT_EQ(done.output, usage);
    EXPECT_TRUE(now.calls.empty());
  }
}

TEST(CommandLine, AnyOtherFirstWordIsALocalFile) {
  const std::pair<std::wstring, std::string> table[] = {
      {L"--Progress|file", {"\0\0\0\0\0\0\0\0", 8}},
      {L"--verbose|x", {"\0\0\0\0\0\0\0\0", 8}},
      {L"--ping |x", {"\0\0\0\0\0\0\0\0", 8}},
      {L"f|rp|anyword| \t+12abc", {"\1\0\0\0\x0C\0\0\0", 8}},
      {L"f|rp|simple|0x10", {"\1\0\0\0\0\0\0\0", 8}},
      {L"f|rp|simple|2147483647", {"\1\0\0\0\xFF\xFF\xFF\x7F", 8}},
      {L"f|rp||-2147483648", {"\1\0\0\0\0\0\0\x80", 8}},
  };
  for (const auto& [arguments, strategy] : table) {
    now = {};
    EXPECT_EQ(run(arguments).status, 0);
    const std::wstring file = arguments.substr(0, arguments.find(L'|'));
    EXPECT_EQ(now.content[file + L":restore_filter_tag:$DATA"].substr(28, 8), strategy);
  }
}

TEST(Output, IsUtf8InOrderWithNarrowText) {
  const std::wstring text = L"\xE9\x20AC\x4E2D\xD83D\xDE00";
  now = {};
  EXPECT_EQ(run({L"f", text}).output, "create tag stream: \u00E9\u20AC\u4E2D\U0001F600\n");
  now = {};
  now.hasConsole = true;
  EXPECT_EQ(run({L"f", text}).output, "");
  EXPECT_EQ(now.console, L"create tag stream: " + text + L"\n");

  now = {};
  std::stringbuf captured;
  std::streambuf* const previous = std::cout.rdbuf(&captured);
  {
    const zan::wide_output output;
    std::wcout << L"lone \xD800!" << std::endl;
    std::cout << "narrow" << std::endl;
    std::wcout << L"at the end \xD83D" << std::flush;
  }
  std::cout.rdbuf(previous);
  EXPECT_EQ(captured.str(), "lone \uFFFD!\nnarrow\nat the end \uFFFD");
}

TEST(Output, TearsNoSurrogatePairWhereverItsBufferEnds) {
  for (std::size_t before = 505; before < 520; ++before) {
    now = {};
    std::wstring path(before, L'x');
    std::string expected(before, 'x');
    for (int i = 0; i < 300; ++i) {
      path += L"\xDBFF\xDFFF";
      expected += "\U0010FFFF";
    }
    EXPECT_EQ(run({L"f", path}).output, "create tag stream: " + expected + "\n");
  }
}
