// A stand-in for the restore filter, in user mode: attaches to volumes, serves their ports and
// restores files.

#include <getopt.h>
#include <sys/signalfd.h>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>

#include "restore_filter/backing_folders.h"
#include "restore_filter/descriptor_limit.h"
#include "restore_filter/failure.h"
#include "restore_filter/message_handler.h"
#include "restore_filter/port_server.h"

namespace {

constexpr const char* usageText =
    "restore_filter [--log] [--drive L=FOLDER]... [--share \\\\SERVER\\SHARE=FOLDER]... FOLDER...\n"
    "restore_filter --help | --version\n"
    "\n"
    "A stand-in for the restore filter, for trials. Attaches to the volume of each FOLDER and\n"
    "serves its port until SIGINT (Ctrl-C) or SIGTERM. Serves only the user it runs as. A file\n"
    "belongs to its restoration until it is whole: what a program writes into it before may be\n"
    "lost.\n"
    "--drive, --share: FOLDER stands for the drive or the share in the paths of backing files.\n"
    "--log prints to standard error each well-formed message, and failed system calls on files.\n";

// "\\SERVER\SHARE": two names, with one backslash between them.
bool isShare(const std::string& name) {
  const std::size_t middle = name.find('\\', 2);
  return name.starts_with("\\\\") && middle != name.npos && middle > 2 &&
         middle + 1 < name.size() && name.find('\\', middle + 1) == name.npos;
}

// Makes a folder stand for a drive, "L=FOLDER", or for a share, "\\SERVER\SHARE=FOLDER".
void add(backing_folders& folders, bool isDrive, const std::string& given) {
  const std::size_t equals = given.find('=');
  const std::string name = given.substr(0, equals);
  const bool isLetter = name.size() == 1 && std::isalpha(static_cast<unsigned char>(name[0])) != 0;
  if (equals == given.npos || !(isDrive ? isLetter : isShare(name))) {
    const char* const takes = isDrive ? "--drive takes L" : "--share takes \\\\SERVER\\SHARE";
    throw std::runtime_error(std::string(takes) + "=FOLDER, not '" + given + "'");
  }
  const char* const folder = given.c_str() + equals + 1;
  if (!folders.add(isDrive ? "\\??\\" + name + ':' : "\\Device\\Mup" + name.substr(1), folder)) {
    throw std::runtime_error(std::string(folder) + ": " + std::strerror(errno));
  }
}

// SIGINT and SIGTERM arrive by a descriptor. The threads never see them.
descriptor stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGXFSZ, SIG_IGN);  // a file size limit makes a write fail
  std::signal(SIGPIPE, SIG_IGN);  // so does a log that nobody reads any more
  return descriptor(signalfd(-1, &signals, SFD_CLOEXEC));
}

}  // namespace

int main(int argc, char** argv) try {
  static constexpr option options[] = {
      {"help", no_argument, nullptr, 'h'},        {"version", no_argument, nullptr, 'v'},
      {"log", no_argument, nullptr, 'l'},         {"drive", required_argument, nullptr, 'd'},
      {"share", required_argument, nullptr, 's'}, {}};
  backing_folders folders;
  opterr = 0;
  for (int word = 0; (word = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
    switch (word) {
      case 'h': std::cout << usageText; return 0;
      case 'v': std::cout << "restore_filter " ZAN_VERSION "\n"; return 0;
      case 'l': isLogging = true; break;
      case 'd':
      case 's': add(folders, word == 'd', optarg); break;
      default:
        throw std::runtime_error("cannot use '" + std::string(argv[optind - 1]) + "': see --help");
    }
  }
  if (optind == argc) throw std::runtime_error("no FOLDER is given: see --help");

  raiseDescriptorLimit();
  const descriptor stop = stopSignals();
  message_handler handler(folders);
  port_server server(handler);
  for (int i = optind; i < argc; ++i) {
    const std::string port = server.attach(argv[i]);
    std::cout << argv[i] << ": " << port << std::endl;
  }
  server.serve(stop.get());
  return 0;
} catch (const std::exception& error) {
  std::cerr << "restore_filter: " << error.what() << '\n';
  return 1;
}
