// The Filter Manager. An instance is a listening socket with the name of a port, and a connection
// is a SOCK_SEQPACKET socket. To connect, the client sends its context and gets an HRESULT (int32,
// little-endian). A message is the size of the output buffer (uint32) and the input bytes. Its
// answer is an HRESULT and the reply, which fits into the output buffer.

#include <fltuser.h>
#include <sys/uio.h>
#include <unistd.h>
#include <windows.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/abstract_socket.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/proc_file.h"
#include "platform/linux/utf16.h"
#include "platform/linux/volume_name.h"
#include "platform/posix/handle.h"
#include "platform/posix/host_string.h"
#include "platform/posix/last_error.h"

namespace {

constexpr std::string_view altitude = "180000";

struct instance_list {
  std::string filterName;
  std::vector<dev_t> devices;
  std::size_t next = 0;
};

// A line of /proc/net/unix: "Num: RefCount Protocol Flags Type St Inode Path". A
// listening socket has the flag 0x10000, SOCK_SEQPACKET is type 5, and '@' stands
// for the zero that begins an abstract name.
std::vector<dev_t> listeningDevices(const std::string& sockets, const std::string& filterName) {
  std::vector<dev_t> devices;
  const std::string prefix = " @\\" + filterName + '-';
  for (std::size_t at = sockets.find(prefix); at != sockets.npos;
       at = sockets.find(prefix, at + 1)) {
    const std::size_t start = sockets.rfind('\n', at) + 1;
    const std::string_view fields = std::string_view(sockets).substr(start, at - start);
    if (fields.find(" 00010000 0005 ") == fields.npos) continue;
    const std::size_t name = at + prefix.size();
    const std::size_t length = sockets.find('\n', at) - name;
    if (const auto device = deviceOfVolumeId(std::string_view(sockets).substr(name, length))) {
      devices.push_back(*device);
    }
  }
  return devices;
}

// Appends `text` in UTF-16 to the record, and sets its length and offset.
void place(std::string_view text, std::vector<BYTE>& record, USHORT& length, USHORT& offset) {
  offset = static_cast<USHORT>(record.size());
  length = static_cast<USHORT>(2 * text.size());
  for (const char unit : text) record.insert(record.end(), {static_cast<BYTE>(unit), 0});
}

std::vector<BYTE> recordFor(const std::string& filterName, dev_t device) {
  INSTANCE_AGGREGATE_STANDARD_INFORMATION header{};
  std::vector<BYTE> record(sizeof(header));
  header.Flags = FLTFL_IASI_IS_MINIFILTER;
  auto& mini = header.Type.MiniFilter;
  place(filterName + " Instance", record, mini.InstanceNameLength, mini.InstanceNameBufferOffset);
  place(altitude, record, mini.AltitudeLength, mini.AltitudeBufferOffset);
  place(deviceNameOf(device), record, mini.VolumeNameLength, mini.VolumeNameBufferOffset);
  place(filterName, record, mini.FilterNameLength, mini.FilterNameBufferOffset);
  std::memcpy(record.data(), &header, sizeof(header));
  return record;
}

HRESULT nextInstance(instance_list& search, LPVOID buffer, DWORD size, LPDWORD returned) {
  if (search.next == search.devices.size()) return HRESULT_FROM_WIN32(ERROR_NO_MORE_ITEMS);
  const std::vector<BYTE> record = recordFor(search.filterName, search.devices[search.next]);
  if (record.size() > size) return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
  std::memcpy(buffer, record.data(), record.size());
  *returned = static_cast<DWORD>(record.size());
  ++search.next;
  return S_OK;
}

// Sends a packet of two parts. Receives a packet of an HRESULT and a reply. Returns the count of
// reply bytes, or -1 if the peer is gone.
ssize_t exchange(int port, std::array<iovec, 2> packet, HRESULT& result, iovec reply) {
  msghdr message{};
  message.msg_iov = packet.data();
  message.msg_iovlen = packet.size();
  // EPIPE: the peer has answered already, for instance that it does not serve this user.
  if (sendmsg(port, &message, MSG_NOSIGNAL) < 0 && errno != EPIPE) return -1;
  std::array<iovec, 2> answer{{{&result, sizeof(result)}, reply}};
  message.msg_iov = answer.data();
  const ssize_t size = recvmsg(port, &message, 0);
  return size < static_cast<ssize_t>(sizeof(result)) ? -1
                                                     : size - static_cast<ssize_t>(sizeof(result));
}

// Whether root or this process's user listens there: anybody can take a port's name.
bool isTrusted(int port) {
  ucred listener{};
  socklen_t size = sizeof(listener);
  return getsockopt(port, SOL_SOCKET, SO_PEERCRED, &listener, &size) == 0 &&
         (listener.uid == 0 || listener.uid == geteuid());
}

}  // namespace

HRESULT FilterInstanceFindFirst(LPCWSTR filterName, INSTANCE_INFORMATION_CLASS, LPVOID buffer,
                                DWORD size, LPDWORD returned, LPHANDLE search) {
  try {
    auto found = std::make_unique<instance_list>();
    found->filterName = host_string(filterName).bytes;
    std::string sockets;
    if (!readProcFile("/proc/net/unix", sockets)) return hostFailure();
    found->devices = listeningDevices(sockets, found->filterName);
    if (found->devices.empty()) return ERROR_FLT_FILTER_NOT_FOUND;
    const HRESULT result = nextInstance(*found, buffer, size, returned);
    if (result == S_OK) *search = found.release();
    return result;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

HRESULT FilterInstanceFindNext(HANDLE search, INSTANCE_INFORMATION_CLASS, LPVOID buffer, DWORD size,
                               LPDWORD returned) {
  try {
    return nextInstance(*static_cast<instance_list*>(search), buffer, size, returned);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

// A search that found nothing has no handle.
HRESULT FilterInstanceFindClose(HANDLE search) {
  if (search != INVALID_HANDLE_VALUE) delete static_cast<instance_list*>(search);
  return S_OK;
}

HRESULT FilterConnectCommunicationPort(LPCWSTR portName, DWORD, LPCVOID context, WORD contextSize,
                                       LPSECURITY_ATTRIBUTES, HANDLE* port) {
  descriptor connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!connection.isOpen()) return hostFailure();
  const abstract_address address(host_string(portName).bytes);
  if (connect(connection.get(), address.get(), address.size()) != 0) {
    const bool isAbsent = errno == ECONNREFUSED || errno == ENOENT;
    return isAbsent ? HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) : hostFailure();
  }
  if (!isTrusted(connection.get())) return HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
  HRESULT result = S_OK;
  const iovec packet{const_cast<LPVOID>(context), contextSize};
  if (exchange(connection.get(), {{packet, {}}}, result, {}) < 0) {
    return HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);
  }
  if (result >= 0) *port = handleOf(connection.release());
  return result;
}

HRESULT FilterSendMessage(HANDLE port, LPVOID input, DWORD inputSize, LPVOID output,
                          DWORD outputSize, LPDWORD returned) {
  HRESULT result = S_OK;
  const ssize_t size =
      exchange(descriptorOf(port), {{{&outputSize, sizeof(outputSize)}, {input, inputSize}}},
               result, {output, outputSize});
  if (size < 0) return HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);
  *returned = static_cast<DWORD>(size);
  return result;
}
