#include "start/network.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "descriptor.h"
#include "option_values.h"

namespace vorn::run {
namespace {

std::optional<SocketAddress> parseAddress(const std::string& text,
                                          in_port_t port) {
  SocketAddress address;
  sockaddr_in v4{};
  if (::inet_pton(AF_INET, text.c_str(), &v4.sin_addr) == 1) {
    v4.sin_family = AF_INET;
    v4.sin_port = port;
    std::memcpy(&address.storage, &v4, sizeof(v4));
    address.size = sizeof(v4);
    return address;
  }
  sockaddr_in6 v6{};
  if (::inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr) == 1) {
    v6.sin6_family = AF_INET6;
    v6.sin6_port = port;
    std::memcpy(&address.storage, &v6, sizeof(v6));
    address.size = sizeof(v6);
    return address;
  }
  return std::nullopt;
}

/// The words of a line up to a comment.
std::vector<std::string> hostWords(std::string_view line) {
  std::vector<std::string> words;
  line = line.substr(0, line.find('#'));
  constexpr char kBlanks[] = " \t\r";
  for (;;) {
    const size_t begin = line.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) return words;
    line.remove_prefix(begin);
    const size_t end = std::min(line.find_first_of(kBlanks), line.size());
    words.emplace_back(line.substr(0, end));
    line.remove_prefix(end);
  }
}

bool isConnected(int fd, const SocketAddress& address, int limit_ms) {
  const auto* const target =
      reinterpret_cast<const sockaddr*>(&address.storage);
  if (::connect(fd, target, address.size) == 0) return true;
  if (errno == EAGAIN) return true;  // a full queue: busy, but it listens
  if (errno != EINPROGRESS) return false;
  pollfd watched{fd, POLLOUT, 0};
  if (::poll(&watched, 1, limit_ms) <= 0) return false;
  int error = 0;
  socklen_t size = sizeof(error);
  return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 &&
         error == 0;
}

}  // namespace

std::vector<SocketAddress> findAddresses(const std::string& host,
                                         const std::string& port,
                                         std::string_view hosts) {
  const in_port_t number =
      htons(static_cast<uint16_t>(parseNumber(port, 1, 65535).value_or(0)));
  if (const auto address = parseAddress(host, number)) return {*address};
  std::vector<SocketAddress> found;
  while (!hosts.empty()) {
    const size_t end = std::min(hosts.find('\n'), hosts.size());
    const auto words = hostWords(hosts.substr(0, end));
    hosts.remove_prefix(std::min(end + 1, hosts.size()));
    if (std::find(words.begin(), words.end(), host) == words.end()) continue;
    if (const auto address = parseAddress(words[0], number)) {
      found.push_back(*address);
    }
  }
  if (found.empty() && host == "localhost") {
    return {*parseAddress("127.0.0.1", number), *parseAddress("::1", number)};
  }
  return found;
}

std::vector<SocketAddress> unixAddress(const std::string& path) {
  sockaddr_un address{};
  if (path.size() >= sizeof(address.sun_path)) return {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, path.size());
  SocketAddress result;
  std::memcpy(&result.storage, &address, sizeof(address));
  result.size = sizeof(address);
  return {result};
}

bool acceptsConnection(const std::vector<SocketAddress>& addresses,
                       int limit_ms) {
  return std::any_of(
      addresses.begin(), addresses.end(), [&](const SocketAddress& address) {
        const launch::Descriptor socket(
            ::socket(address.storage.ss_family,
                     SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        return socket.number() >= 0 &&
               isConnected(socket.number(), address, limit_ms);
      });
}

}  // namespace vorn::run
