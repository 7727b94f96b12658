#include "restore_filter/port_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>

#include "platform/linux/abstract_socket.h"
#include "platform/linux/mount_table.h"
#include "platform/linux/volume_name.h"
#include "restore_filter/descriptor_limit.h"

namespace {

// When there are this many, an old one is dropped. A connection of the tool lasts for one message.
constexpr std::size_t mostConnections = 200;
constexpr int idleMilliseconds = 1000;

pollfd readable(int descriptor) { return {descriptor, POLLIN, 0}; }

void waitForResources() { usleep(10000); }  // some may be freed meanwhile

// Answers another user's context, sent or not. A context left unread would hide the answer.
void refuse(const descriptor& socket) {
  const HRESULT denied = HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
  char context[RESTORE_FILTER_CONNECTION_CONTEXT_SIZE];
  shutdown(socket.get(), SHUT_RD);
  recv(socket.get(), context, sizeof(context), 0);
  send(socket.get(), &denied, sizeof(denied), MSG_NOSIGNAL);
}

}  // namespace

std::string port_server::attach(const std::string& path) {
  const auto fail = [&](const char* why) { throw std::runtime_error(path + ": " + why); };
  const auto mount = findMountOf(path.c_str());
  // The path exists, but its mount is not listed, as in a chroot.
  const bool isHidden = !mount && errno == ENOENT && access(path.c_str(), F_OK) == 0;
  if (!mount) fail(isHidden ? "its mount is not in /proc/self/mountinfo" : std::strerror(errno));
  std::string name = RESTORE_FILTER_PORT_PREFIX_A + volumeIdOf(mount->device);
  for (const port& each : ports) {
    if (each.device == mount->device) return name;
  }
  descriptor listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const abstract_address address(name);
  // Forbids clients to pass descriptors, if the kernel can: closing a passed one may take long.
  constexpr int passRights = 83, no = 0;  // SO_PASSRIGHTS, Linux 6.16
  setsockopt(listener.get(), SOL_SOCKET, passRights, &no, sizeof(no));
  if (bind(listener.get(), address.get(), address.size()) != 0 ||
      listen(listener.get(), SOMAXCONN) != 0) {
    fail(errno == EADDRINUSE ? "its volume already has a restore filter" : std::strerror(errno));
  }
  ports.push_back({std::move(listener), mount->device});
  return name;
}

void port_server::serve(int stop) {
  std::vector<pollfd> waiting;
  for (;;) {
    waiting.assign(1, readable(stop));
    for (const port& each : ports) waiting.push_back(readable(each.listener.get()));
    for (const connection& each : connections) waiting.push_back(readable(each.socket.get()));
    if (poll(waiting.data(), waiting.size(), idleMilliseconds) < 0) {
      if (poll(waiting.data(), 1, 0) > 0) return;
      waitForResources();
      continue;
    }
    if (waiting[0].revents != 0) return;

    const auto* ready = waiting.data() + 1 + ports.size();
    for (connection& each : connections) {
      const short events = (ready++)->revents;
      if (events != 0 && !receive(each, (events & POLLHUP) != 0)) each.socket = descriptor();
    }
    std::erase_if(connections, [](const connection& each) { return !each.socket.isOpen(); });
    for (std::size_t i = 0; i < ports.size(); ++i) {
      if (waiting[1 + i].revents != 0) accept(ports[i]);
    }
    handler.closeEnded();
  }
}

void port_server::accept(const port& from) {
  descriptor socket(accept4(from.listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (!socket.isOpen()) return waitForResources();
  if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return;
  if (peer.uid != geteuid()) return refuse(socket);
  const bool isFull =
      connections.size() >= mostConnections || !leavesFree(socket, descriptorsPerMessage);
  if (isFull && !connections.empty()) {
    connections.erase(connections.begin());  // the oldest
    // Give the socket the freed number, so that the highest numbers remain free.
    socket = descriptor(fcntl(socket.get(), F_DUPFD_CLOEXEC, 0));
    if (!socket.isOpen()) return;
  }
  connections.push_back({std::move(socket), from.device, peer.pid, false});
}

// Receives one packet and answers it. False if the connection is over: it failed, its context was
// refused, or the peer has hung up, which recv reports as an empty packet.
bool port_server::receive(connection& from, bool isHungUp) {
  std::array<char, 64> packet;  // larger than any valid packet
  const ssize_t size = recv(from.socket.get(), packet.data(), packet.size(), MSG_TRUNC);
  if (size < 0 && errno == EAGAIN) return true;
  if (size < 0 || (size == 0 && isHungUp)) return false;

  ProgressInfo reply{};
  std::size_t replySize = 0;
  HRESULT result = answer(from, packet.data(), static_cast<std::size_t>(size), reply, replySize);
  std::array<iovec, 2> parts{{{&result, sizeof(result)}, {&reply, replySize}}};
  msghdr message{};
  message.msg_iov = parts.data();
  message.msg_iovlen = parts.size();
  return sendmsg(from.socket.get(), &message, MSG_NOSIGNAL) >= 0 && from.isOpen;
}

// The first packet is the context, every other one the output buffer's size and a message.
HRESULT port_server::answer(connection& from, const void* packet, std::size_t size,
                            ProgressInfo& reply, std::size_t& replySize) try {
  if (!from.isOpen) {
    from.isOpen = size == RESTORE_FILTER_CONNECTION_CONTEXT_SIZE;
    return from.isOpen ? S_OK : E_INVALIDARG;
  }
  std::uint32_t room = 0;
  if (size < sizeof(room)) return E_INVALIDARG;
  std::memcpy(&room, packet, sizeof(room));
  const HRESULT result =
      handler.handle(from.sender, from.device, static_cast<const char*>(packet) + sizeof(room),
                     size - sizeof(room), reply, replySize);
  replySize = std::min<std::size_t>(replySize, room);
  return result;
} catch (const std::bad_alloc&) {
  replySize = 0;
  return E_OUTOFMEMORY;
}
