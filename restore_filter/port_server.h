#pragma once

#include <sys/types.h>
#include <windows.h>

#include <cstddef>
#include <string>
#include <vector>

#include "platform/linux/descriptor.h"
#include "restore_filter/message_handler.h"

/// The communication ports of all instances, one per volume, and their connections. Serves only its
/// own user. A slow or silent client delays nobody, nor does a slow read of a backing file or a
/// slow sync of a restoration. But opening or writing a file can block every client.
class port_server {
 public:
  explicit port_server(message_handler& messages) : handler(messages) {}

  /// Listens on the port of the volume that holds `path`, unless it already does. Returns the
  /// port's name. Throws std::runtime_error that names `path`.
  std::string attach(const std::string& path);

  /// Serves until the descriptor `stop` becomes readable.
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
    bool isOpen;  // the context has been accepted
  };

  void accept(const port& from);
  bool receive(connection& from, bool isHungUp);
  HRESULT answer(connection& from, const void* packet, std::size_t size, ProgressInfo& reply,
                 std::size_t& replySize);

  message_handler& handler;
  std::vector<port> ports;
  std::vector<connection> connections;
};
