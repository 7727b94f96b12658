#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <string_view>

/// A name in the abstract name space of Unix sockets (unix(7)). A name that is too long is cut;
/// those of ports and the debug monitor fit.
class abstract_address {
 public:
  explicit abstract_address(std::string_view name) {
    address.sun_family = AF_UNIX;
    const std::size_t length = name.copy(address.sun_path + 1, sizeof(address.sun_path) - 1);
    used = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
  }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
  socklen_t size() const { return used; }

 private:
  sockaddr_un address{};
  socklen_t used;
};
