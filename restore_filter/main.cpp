// A stand-in for the restore filter, in user mode: attaches to volumes, serves their ports and
// restores files.

#include <sys/signalfd.h>

#include <cctype>
#include <csignal>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "restore_filter/backing_folders.h"
#include "restore_filter/descriptor_limit.h"
#include "restore_filter/log.h"
#include "restore_filter/message_handler.h"
#include "restore_filter/port_server.h"

namespace {

constexpr const char* usageText =
    "restore_filter [--log] [--drive L=FOLDER]... [--share \\\\SERVER\\SHARE=FOLDER]... DIR...\n"
    "restore_filter --help | --version\n"
    "\n"
    "A stand-in for the restore filter, for trials. Attaches to the volume of each DIR and serves\n"
    "its port until SIGINT or SIGTERM. Serves only the user it runs as.\n"
    "--drive, --share: FOLDER stands for the drive or the share in the paths of backing files.\n"
    "--log prints to standard error each well-formed message, and unexpected failures of system\n"
    "calls on files.\n";

int usage() {
  std::cerr << usageText;
  return 1;
}

// The NT prefix of "L" or "\\SERVER\SHARE"; empty if `name` is neither.
std::string ntPrefix(std::string_view option, std::string_view name) {
  if (option == "--drive") {
    const bool isLetter =
        name.size() == 1 && std::isalpha(static_cast<unsigned char>(name[0])) != 0;
    return isLetter ? "\\??\\" + std::string(name) + ':' : "";
  }
  if (!name.starts_with("\\\\")) return "";
  const std::size_t slash = name.find('\\', 2);
  const bool isShare = slash != name.npos && slash > 2 && slash + 1 < name.size() &&
                       name.find('\\', slash + 1) == name.npos;
  return isShare ? "\\Device\\Mup" + std::string(name.substr(1)) : "";
}

// SIGINT and SIGTERM arrive by a descriptor. The threads never see them.
descriptor stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGXFSZ, SIG_IGN);  // a file size limit makes a write fail
  return descriptor(signalfd(-1, &signals, SFD_CLOEXEC));
}

}  // namespace

int main(int argc, char** argv) try {
  backing_folders folders;
  std::vector<const char*> volumes;
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word == "--help" || word == "--version") {
      std::cout << (word == "--help" ? usageText : "restore_filter " ZAN_VERSION "\n");
      return 0;
    }
    if (word == "--log") {
      isLogging = true;
      continue;
    }
    if (word != "--drive" && word != "--share") {
      if (word.starts_with('-')) return usage();
      volumes.push_back(argv[i]);
      continue;
    }
    const char* const equals = ++i == argc ? nullptr : std::strchr(argv[i], '=');
    if (equals == nullptr) return usage();
    const std::string_view name(argv[i], static_cast<std::size_t>(equals - argv[i]));
    const std::string prefix = ntPrefix(word, name);
    if (prefix.empty()) return usage();
    if (!folders.add(prefix, equals + 1)) {
      std::cerr << "restore_filter: " << equals + 1 << ": " << std::strerror(errno) << '\n';
      return 1;
    }
  }
  if (volumes.empty()) return usage();

  raiseDescriptorLimit();
  const descriptor stop = stopSignals();
  message_handler handler(folders);
  port_server server(handler);
  for (const char* volume : volumes) {
    std::string why;
    const std::string port = server.attach(volume, why);
    if (port.empty()) {
      std::cerr << "restore_filter: " << volume << ": " << why << '\n';
      return 1;
    }
    std::cout << volume << ": " << port << std::endl;
  }
  server.serve(stop.get());
  return 0;
} catch (const std::exception& error) {
  std::cerr << "restore_filter: " << error.what() << '\n';
  return 1;
}
