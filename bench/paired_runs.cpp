// Runs two programs in turn, pair by pair, and prints the median ratio of their
// wall times and the peak memory of the first over the second:
//
//   paired_runs PAIRS PROGRAM WORDS... -- PROGRAM WORDS...
//
// A word "@" is a new file's name; it and its tag stream are removed after the run.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct cost {
  double seconds;
  long kibibytes;
};

cost run(const std::vector<char*>& words) {
  static posix_spawn_file_actions_t toNull;
  static const int prepared =
      posix_spawn_file_actions_init(&toNull) |
      posix_spawn_file_actions_addopen(&toNull, 1, "/dev/null", O_WRONLY, 0);
  char name[] = "paired_run";
  std::vector<char*> arguments = words;
  for (char*& word : arguments) {
    if (word != nullptr && std::strcmp(word, "@") == 0) word = name;
  }
  const auto start = std::chrono::steady_clock::now();
  pid_t child = 0;
  if (prepared != 0 ||
      posix_spawn(&child, arguments[0], &toNull, nullptr, arguments.data(), environ) != 0) {
    std::perror(arguments[0]);
    std::exit(1);
  }
  int status = 0;
  rusage usage{};
  wait4(child, &status, 0, &usage);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  if (status != 0) {
    std::fprintf(stderr, "%s failed\n", arguments[0]);
    std::exit(1);
  }
  unlink(name);
  unlink((std::string(name) + ":restore_filter_tag").c_str());
  return {elapsed.count(), usage.ru_maxrss};
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> programs[2];
  int which = 0;
  for (int i = 2; i < argc; ++i) {
    if (std::strcmp(argv[i], "--") == 0) {
      which = 1;
    } else {
      programs[which].push_back(argv[i]);
    }
  }
  const int pairs = argc > 2 ? static_cast<int>(std::strtol(argv[1], nullptr, 10)) : 0;
  if (pairs < 1 || programs[0].empty() || programs[1].empty()) return 1;

  std::vector<double> ratios;
  long memory[2] = {};
  for (auto& program : programs) program.push_back(nullptr);
  for (int pair = -10; pair < pairs; ++pair) {  // the first ten warm up
    double seconds[2];
    for (int turn = 0; turn < 2; ++turn) {
      const int side = (pair & 1) ^ turn;  // each goes first in every other pair
      const cost spent = run(programs[side]);
      seconds[side] = spent.seconds;
      memory[side] = std::max(memory[side], spent.kibibytes);
    }
    if (pair >= 0) ratios.push_back(seconds[0] / seconds[1]);
  }
  std::nth_element(ratios.begin(), ratios.begin() + pairs / 2, ratios.end());
  std::printf("wall %.3f, peak memory %+ld KiB\n", ratios[static_cast<std::size_t>(pairs) / 2],
              memory[0] - memory[1]);
  return 0;
}
