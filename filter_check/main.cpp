// zan_filter_check: checks a restore filter against the contract, statement by statement. Prints
// TAP, version 13.

#include <algorithm>
#include <csignal>
#include <cwchar>
#include <iostream>

#include "control/volume_id.h"
#include "filter_check/statements.h"
#include "fsfilter/filter_instances.h"
#include "platform/wide_path.h"
#include "platform/wmain.h"

namespace fs = std::filesystem;

namespace {

int endWith(const std::string& reason) {
  std::cerr << "zan_filter_check: " << reason << '\n';
  return 1;
}

int usage(std::ostream& output, int status) {
  output
      << "zan_filter_check [--timeout SECONDS] [--skip-reads] FOLDER BACKING_FOLDER [AS]\n"
         "zan_filter_check --help | --version\n"
         "\n"
         "Checks whether the restore filter on FOLDER's volume keeps its contract. Creates a new\n"
         "folder in FOLDER and one in BACKING_FOLDER, and removes these two at the end.\n"
         "Give AS if the filter reaches BACKING_FOLDER by another path.\n"
         "SECONDS is how long to wait for an answer: 1 to 3600, 10 if not given.\n"
         "--skip-reads is for a filter in user mode that does not serve what programs read.\n"
         "Prints TAP (Test Anything Protocol). The exit status is 0 if no statement fails.\n";
  return status;
}

bool isAnswering(trial& t) try {
  t.send(t.newFile(), {});
  return true;
} catch (const unanswered&) {
  return false;
} catch (const violation&) {
  return true;
} catch (const std::exception&) {  // nothing was sent
  return true;
}

enum class outcome { holds, fails, untried };

// The lines after a "not ok": what was sent last, and what is wrong.
void explain(const trial& t, const std::string& wrong) {
  const auto shown = std::min<std::ptrdiff_t>(std::ssize(t.log()), 10);
  if (shown < std::ssize(t.log())) std::cout << "#   (earlier messages left out)\n";
  for (auto each = t.log().end() - shown; each != t.log().end(); ++each) {
    std::cout << "#   " << *each << '\n';
  }
  std::cout << "#   " << wrong << std::endl;
}

// Tries one statement and prints its lines.
outcome tryOne(trial& t, const statement& tried, const std::string& line) {
  try {
    t.clear();
    tried.check(t);
    const std::string choice = t.choice().empty() ? "" : " # choice: " + t.choice();
    std::cout << "ok " << line << choice << std::endl;
    return outcome::holds;
  } catch (const untried& why) {
    std::cout << "ok " << line << " # SKIP " << why.reason << std::endl;
    return outcome::untried;
  } catch (const violation& failed) {
    std::cout << "not ok " << line << '\n';
    explain(t, "expected: " + failed.expected);
  } catch (const std::exception& failed) {
    std::cout << "not ok " << line << '\n';
    explain(t, failed.what());
  }
  return outcome::fails;
}

int checkAll(trial& t, const std::vector<statement>& statements) {
  std::cout << "TAP version 13\n1.." << statements.size()
            << "\n# zan_filter_check " ZAN_VERSION "\n# backing paths begin with "
            << zan::textOf(zan::hostPath(t.backingPath(L""))) << std::endl;
  int number = 0;
  int count[3] = {};
  std::string heading;
  for (const statement& each : statements) {
    if (heading != each.heading) std::cout << "# " << (heading = each.heading) << std::endl;
    const outcome result = tryOne(t, each, std::to_string(++number) + " - " + each.text);
    ++count[static_cast<int>(result)];
    if (result != outcome::fails) continue;
    const std::string last = t.log().empty() ? "" : t.log().back() + "; ";
    if (each.advice == nullptr && isAnswering(t)) continue;
    const std::string why = each.advice == nullptr
                                ? "the filter no longer answers"
                                : last + "nothing else can be tried" + each.advice;
    std::cout << "Bail out! " << why << std::endl;
    return endWith(why);
  }
  std::cout << "# " << statements.size() << " statements: " << count[0] << " passed, " << count[1]
            << " failed, " << count[2] << " skipped" << std::endl;
  if (!std::cout) return endWith("cannot write the results");
  return count[1] == 0 ? 0 : 1;
}

int check(const fs::path& folder, const fs::path& backing, const std::wstring& as,
          std::chrono::seconds limit, bool skipsReads) {
  std::error_code error;
  for (const fs::path& each : {folder, backing}) {
    if (!fs::is_directory(each, error)) return endWith(zan::textOf(each) + ": not a folder");
    const auto space = fs::space(each / "", error);  // libstdc++ drops the last name on Windows
    if (error) return endWith(zan::textOf(each) + ": " + error.message());
    if (space.available < 256 << 20) return endWith(zan::textOf(each) + ": less than 256 MiB free");
  }
  if (fs::equivalent(folder, backing, error))
    return endWith("FOLDER and BACKING_FOLDER are the same");
  const std::wstring volumeId = getVolumeId(zan::widePath(folder));
  if (volumeId.empty()) return endWith(zan::textOf(folder) + ": no volume id");
  // Listed before anything is created.
  const auto instances = zan::fsfilter::findFilterInstances(RESTORE_FILTER_NAME);
  const auto here = std::count_if(instances.begin(), instances.end(),
                                  [&](const auto& each) { return each.volumeId == volumeId; });
  const bool isOneVolume = getVolumeId(zan::widePath(backing)) == volumeId;
  trial t(folder, backing, as, RESTORE_FILTER_PORT_PREFIX + volumeId, limit);
  return checkAll(t, contractStatements(here, isOneVolume, skipsReads));
}

}  // namespace

int wmain(int argc, wchar_t** argv) try {
  for (const int number : {SIGINT, SIGTERM}) std::signal(number, [](int) { isInterrupted = true; });
  std::vector<std::wstring> words(argv + 1, argv + argc);
  if (words.size() == 1 && words[0] == L"--help") return usage(std::cout, 0);
  if (words.size() == 1 && words[0] == L"--version") {
    std::cout << "zan_filter_check " ZAN_VERSION "\n";
    return 0;
  }
  long seconds = 10;
  bool skipsReads = false;
  while (!words.empty() && words[0].starts_with(L'-')) {
    if (words[0] == L"--skip-reads") {
      skipsReads = true;
    } else {
      if (words[0] != L"--timeout" || words.size() < 2) return usage(std::cerr, 1);
      words.erase(words.begin());
      wchar_t* end = nullptr;
      seconds = std::wcstol(words[0].c_str(), &end, 10);
      if (*end != L'\0' || seconds < 1 || seconds > 3600) return usage(std::cerr, 1);
    }
    words.erase(words.begin());
  }
  if (words.size() < 2 || words.size() > 3) return usage(std::cerr, 1);
  const fs::path backing = fs::absolute(zan::hostPath(words[1]));
  const std::wstring as = words.size() == 3 ? words[2] : zan::widePath(backing);
  return check(zan::hostPath(words[0]), backing, as, std::chrono::seconds(seconds), skipsReads);
} catch (const interruption&) {
  return endWith("interrupted");
} catch (const std::exception& error) {
  return endWith(error.what());
}
