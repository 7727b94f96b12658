#pragma once

#include <sys/types.h>
#include <windows.h>

#include <cstddef>
#include <string>
#include <vector>

#include "platform/posix/descriptor.h"
#include "restore_filter/message_handler.h"

/// The communication ports of all instances, one a volume, and their connections.
/// Serves its own user, nobody else. A slow or silent peer holds up nobody, nor
/// does a slow read of a backing file. While opening or writing a file hangs, all wait.
class port_server {
 public:
  explicit port_server(message_handler& messages) : handler(messages) {}

  /// Attaches to the volume that holds `path`, once: listens on its port and returns
  /// the port's name. Empty when that fails, `why` telling the reason.
  std::string attach(const char* path, std::string& why);

  /// Serves until `stop`, a descriptor, can be read.
  void serve(int stop);

 private:
  struct port {
    descriptor listener;
    dev_t device;
  };
  struct connection {
    descriptor socket;
    dev_t device;
    pid_t sender;
    bool isTrusted;
    bool isOpen;  // the context has been accepted
  };

  void dropConnection();
  void accept(const port& from);
  bool receive(connection& from, bool isHungUp);
  HRESULT answer(connection& from, const void* packet, std::size_t size, ProgressInfo& reply,
                 std::size_t& replySize);

  message_handler& handler;
  std::vector<port> ports;
  std::vector<connection> connections;
};
