#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorn::launch {

/// A socket that waits for connections or, with "udp", for datagrams.
struct ListeningSocket {
  std::string protocol;  // "tcp", "udp" or "unix"
  // An IP address in its usual form, in brackets for IPv6; the path of a Unix
  // socket, "@" and a name if it is abstract. As the process sees it.
  std::string address;
  uint16_t port = 0;  // 0: a Unix socket
};

/// "tcp 127.0.0.1:8080" or "unix /run/camera.sock".
std::string describeSocket(const ListeningSocket& socket);

using SocketsByInode = std::map<uint32_t, ListeningSocket>;

/// Adds the listening sockets in the text of /proc/net/tcp, tcp6, udp or udp6;
/// `protocol` is "tcp" or "udp".
void addIpSockets(const std::string& text, const std::string& protocol,
                  SocketsByInode& sockets);

/// Adds the listening sockets in the text of /proc/net/unix.
void addUnixSockets(const std::string& text, SocketsByInode& sockets);

/// Finds the listening sockets of processes. Reads the tables of each network
/// namespace once.
class ListeningSockets {
 public:
  /// Nothing without the permission to see the descriptors of the process.
  std::optional<std::vector<ListeningSocket>> of(pid_t pid);

 private:
  std::map<std::string, SocketsByInode> by_namespace_;
};

}  // namespace vorn::launch
