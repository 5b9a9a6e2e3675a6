#include "live/listening_sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "live/control_sockets.h"
#include "live/proc_file.h"

namespace vorn::launch {
namespace {

/// The address that /proc/net contains as words of eight hexadecimal digits in
/// the byte order of this machine; empty if it is not one.
std::string addressFrom(const std::string& digits) {
  constexpr size_t kDigits = 8;
  std::array<uint32_t, 4> words{};
  if (digits.size() != kDigits && digits.size() != kDigits * words.size()) {
    return "";
  }
  for (size_t i = 0; i < digits.size() / kDigits; ++i) {
    words.at(i) = static_cast<uint32_t>(
        std::strtoul(digits.substr(i * kDigits, kDigits).c_str(), nullptr, 16));
  }
  const bool is_ipv6 = digits.size() != kDigits;
  char text[INET6_ADDRSTRLEN];
  if (::inet_ntop(is_ipv6 ? AF_INET6 : AF_INET, words.data(), text,
                  sizeof(text)) == nullptr) {
    return "";
  }
  return is_ipv6 ? '[' + std::string(text) + ']' : text;
}

}  // namespace

std::string describeSocket(const ListeningSocket& socket) {
  const std::string port =
      socket.port == 0 ? "" : ':' + std::to_string(socket.port);
  return socket.protocol + ' ' + socket.address + port;
}

void addIpSockets(const std::string& text, const std::string& protocol,
                  SocketsByInode& sockets) {
  // A bound UDP socket without a peer has the state of a closed TCP socket.
  const unsigned wanted = protocol == "tcp" ? TCP_LISTEN : TCP_CLOSE;
  std::istringstream lines(text);
  std::string line;
  std::getline(lines, line);  // the titles
  while (std::getline(lines, line)) {
    // sl local_address rem_address st queues timer retransmits uid timeout
    // inode
    std::istringstream words(line);
    std::string local;
    std::string ignored;
    unsigned state = 0;
    uint32_t inode = 0;
    words >> ignored >> local >> ignored >> std::hex >> state >> std::dec;
    for (int i = 0; i < 5; ++i) words >> ignored;
    words >> inode;
    const size_t colon = local.find(':');
    if (!words || state != wanted || colon == std::string::npos) continue;
    const auto port = static_cast<uint16_t>(
        std::strtoul(local.c_str() + colon + 1, nullptr, 16));
    sockets[inode] = {protocol, addressFrom(local.substr(0, colon)), port};
  }
}

void addUnixSockets(const std::string& text, SocketsByInode& sockets) {
  constexpr unsigned long kAccepts = 0x10000;  // the kernel's __SO_ACCEPTCON
  std::istringstream lines(text);
  std::string line;
  std::getline(lines, line);  // the titles
  while (std::getline(lines, line)) {
    // Num RefCount Protocol Flags Type St Inode Path
    std::istringstream words(line);
    std::string ignored;
    unsigned long flags = 0;
    uint32_t inode = 0;
    words >> ignored >> ignored >> ignored >> std::hex >> flags >> std::dec >>
        ignored >> ignored >> inode;
    if (!words || (flags & kAccepts) == 0) continue;
    std::string path;
    words.ignore();  // the space before the path, which may contain spaces
    std::getline(words, path);
    sockets[inode] = {"unix", path, 0};
  }
}

std::optional<std::vector<ListeningSocket>> ListeningSockets::of(pid_t pid) {
  const auto name_space = readProcLink(procFile(pid, "ns/net"));
  if (!name_space || ::access(procFile(pid, "fd").c_str(), R_OK) != 0) {
    return std::nullopt;
  }
  const auto [entry, is_new] = by_namespace_.try_emplace(*name_space);
  SocketsByInode& known = entry->second;
  if (is_new) {
    for (const std::string protocol : {"tcp", "udp"}) {
      for (const std::string& file : {protocol, protocol + '6'}) {
        addIpSockets(readProcFile(procFile(pid, "net/" + file)).value_or(""),
                     protocol, known);
      }
    }
    addUnixSockets(readProcFile(procFile(pid, "net/unix")).value_or(""), known);
  }
  std::vector<uint32_t> inodes = socketsOf(pid);
  std::sort(inodes.begin(), inodes.end());
  inodes.erase(std::unique(inodes.begin(), inodes.end()), inodes.end());
  std::vector<ListeningSocket> listening;
  for (const uint32_t inode : inodes) {
    const auto found = known.find(inode);
    if (found != known.end()) listening.push_back(found->second);
  }
  return listening;
}

}  // namespace vorn::launch
