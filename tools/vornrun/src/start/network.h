#pragma once

#include <sys/socket.h>

#include <string>
#include <string_view>
#include <vector>

namespace vorn::run {

/// An address of a socket.
struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;
};

/// The addresses of a host: an IP address, or a name in `hosts`, a text of the
/// form of hosts(5). A static program cannot ask the other sources of
/// nsswitch.conf(5). Empty if the host is unknown.
std::vector<SocketAddress> findAddresses(const std::string& host,
                                         const std::string& port,
                                         std::string_view hosts);

/// The address of a socket in the file system; empty if the path is too long.
std::vector<SocketAddress> unixAddress(const std::string& path);

/// Whether a connection to one of the addresses is accepted within
/// `limit_ms` milliseconds each.
bool acceptsConnection(const std::vector<SocketAddress>& addresses,
                       int limit_ms);

}  // namespace vorn::run
