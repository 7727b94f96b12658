// zan_filter_check: checks a restore filter against the contract, statement by statement. Prints
// TAP, version 13.

#include <algorithm>
#include <csignal>
#include <cwchar>
#include <iostream>

#include "app/wmain.h"
#include "control/volume_id.h"
#include "filter_check/statements.h"
#include "fsfilter/filter_instances.h"

namespace {

int endWith(const std::string& reason) {
  std::cerr << "zan_filter_check: " << reason << '\n';
  return 1;
}

int usage(std::ostream& output, int status) {
  output
      << "zan_filter_check [--timeout SECONDS] FOLDER BACKING_FOLDER [AS]\n"
         "zan_filter_check --help | --version\n"
         "\n"
         "Checks whether the restore filter on FOLDER's volume keeps its contract. Creates a new\n"
         "folder in FOLDER and one in BACKING_FOLDER, and removes these two at the end.\n"
         "Give AS if the filter reaches BACKING_FOLDER by another path.\n"
         "SECONDS is how long to wait for an answer: 1 to 3600, 10 if not given.\n"
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
}

enum class outcome { holds, fails, untried };

// Tries one statement and prints its line; after a "not ok" also what was sent and expected.
outcome tryOne(trial& t, const statement& tried, const statement::row& row, int number) {
  std::string line = std::to_string(number) + " - " + tried.text;
  if (const std::size_t at = line.find("{}"); at != line.npos) line.replace(at, 2, row.text);
  t.clear();
  try {
    tried.check(t, row);
    if (!t.choice().empty()) line += " # choice: " + t.choice();
    std::cout << "ok " << line << std::endl;
    return outcome::holds;
  } catch (const untried& why) {
    std::cout << "ok " << line << " # SKIP " << why.reason << std::endl;
    return outcome::untried;
  } catch (const violation& failed) {
    std::cout << "not ok " << line << '\n';
    const auto shown = std::min<std::ptrdiff_t>(std::ssize(t.log()), 10);
    if (shown < std::ssize(t.log())) std::cout << "#   (earlier messages left out)\n";
    for (auto each = t.log().end() - shown; each != t.log().end(); ++each) {
      std::cout << "#   " << *each << '\n';
    }
    std::cout << "#   expected: " << failed.expected << std::endl;
    return outcome::fails;
  }
}

int checkAll(trial& t, const std::vector<statement>& statements) {
  std::size_t plan = 0;
  for (const statement& each : statements) plan += each.rows.size();
  std::cout << "TAP version 13\n1.." << plan << "\n# zan_filter_check " ZAN_VERSION
            << "\n# backing paths begin with " << zan::textOf(zan::hostPath(t.backingPath(L"")))
            << std::endl;
  int number = 0;
  int count[3] = {};
  std::string heading;
  for (const statement& each : statements) {
    if (heading != each.heading) std::cout << "# " << (heading = each.heading) << std::endl;
    for (const statement::row& row : each.rows) {
      const outcome result = tryOne(t, each, row, ++number);
      ++count[static_cast<int>(result)];
      if (result != outcome::fails || (!each.isVital && isAnswering(t))) continue;
      const std::string why =
          each.isVital ? "nothing else can be tried" : "the filter no longer answers";
      std::cout << "Bail out! " << why << std::endl;
      return endWith(why);
    }
  }
  std::cout << "# " << plan << " statements: " << count[0] << " passed, " << count[1] << " failed, "
            << count[2] << " skipped" << std::endl;
  if (!std::cout) return endWith("cannot write the results");
  return count[1] == 0 ? 0 : 1;
}

int check(const fs::path& folder, const fs::path& backing, const std::wstring& as, long limit) {
  for (const fs::path& each : {folder, backing}) {
    if (!fs::is_directory(each)) return endWith(zan::textOf(each) + ": not a folder");
    if (fs::space(each).available < 256 << 20)
      return endWith(zan::textOf(each) + ": less than 256 MiB free");
  }
  if (fs::equivalent(folder, backing)) return endWith("FOLDER and BACKING_FOLDER are the same");
  const std::wstring volumeId = getVolumeId(zan::widePath(folder));
  if (volumeId.empty()) return endWith(zan::textOf(folder) + ": no volume id");
  // Listed before anything is created.
  const auto instances = zan::fsfilter::findFilterInstances(RESTORE_FILTER_NAME);
  const auto here = std::count_if(instances.begin(), instances.end(),
                                  [&](const auto& each) { return each.volumeId == volumeId; });
  const bool isOneVolume = getVolumeId(zan::widePath(backing)) == volumeId;
  trial t(folder, backing, as, RESTORE_FILTER_PORT_PREFIX + volumeId, std::chrono::seconds(limit));
  return checkAll(t, contractStatements(here, isOneVolume));
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
  if (words.size() > 1 && words[0] == L"--timeout") {
    wchar_t* end = nullptr;
    seconds = std::wcstol(words[1].c_str(), &end, 10);
    if (*end != L'\0' || seconds < 1 || seconds > 3600) return usage(std::cerr, 1);
    words.erase(words.begin(), words.begin() + 2);
  }
  if (words.size() < 2 || words.size() > 3 || words[0].starts_with(L'-'))
    return usage(std::cerr, 1);
  const fs::path backing = fs::absolute(zan::hostPath(words[1]));
  const std::wstring as = words.size() == 3 ? words[2] : zan::widePath(backing);
  return check(zan::hostPath(words[0]), backing, as, seconds);
} catch (const interruption&) {
  return endWith("interrupted");
} catch (const std::exception& error) {
  return endWith(error.what());
}
