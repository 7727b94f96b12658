// A stand-in for the restore filter, in user mode: attaches to volumes, serves their ports and
// restores files.

#include <sys/signalfd.h>

#include <csignal>
#include <cstring>
#include <iostream>
#include <regex>
#include <stdexcept>
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
    "its port until SIGINT or SIGTERM. Serves only the user it runs as. A file belongs to its\n"
    "restoration until it is whole: what a program writes into it before may be lost.\n"
    "--drive, --share: FOLDER stands for the drive or the share in the paths of backing files.\n"
    "--log prints to standard error each well-formed message, and failed system calls on files.\n";

// Makes a folder stand for a drive, "L=FOLDER", or for a share, "\\SERVER\SHARE=FOLDER".
void add(backing_folders& folders, bool isDrive, const std::string& given) {
  const std::size_t equals = given.find('=');
  const std::string name = given.substr(0, equals);
  const std::regex form(isDrive ? "[A-Za-z]" : R"(\\\\[^\\]+\\[^\\]+)");
  if (equals == given.npos || !std::regex_match(name, form)) {
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
    } else if (word == "--drive" || word == "--share") {
      add(folders, word == "--drive", ++i < argc ? argv[i] : "");
    } else if (word.starts_with('-')) {
      throw std::runtime_error("unknown option '" + std::string(word) + "': see --help");
    } else {
      volumes.push_back(argv[i]);
    }
  }
  if (volumes.empty()) throw std::runtime_error("no DIR is given: see --help");

  raiseDescriptorLimit();
  const descriptor stop = stopSignals();
  message_handler handler(folders);
  port_server server(handler);
  for (const char* volume : volumes) {
    const std::string port = server.attach(volume);
    std::cout << volume << ": " << port << std::endl;
  }
  server.serve(stop.get());
  return 0;
} catch (const std::exception& error) {
  std::cerr << "restore_filter: " << error.what() << '\n';
  return 1;
}
