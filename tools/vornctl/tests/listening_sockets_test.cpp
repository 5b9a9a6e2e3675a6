#include "live/listening_sockets.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace vorn::launch {
namespace {

std::vector<std::string> described(const SocketsByInode& sockets) {
  std::vector<std::string> texts;
  for (const auto& [inode, socket] : sockets) {
    texts.push_back(std::to_string(inode) + ' ' + describeSocket(socket));
  }
  return texts;
}

/// An IP address as the kernel writes it on this machine.
std::string digitsOf(int family, const char* address) {
  unsigned char bytes[16];
  EXPECT_EQ(::inet_pton(family, address, bytes), 1);
  std::string digits;
  for (size_t i = 0; i < (family == AF_INET ? 4U : 16U); i += 4) {
    uint32_t word = 0;
    std::memcpy(&word, bytes + i, sizeof(word));
    char text[16];
    (void)std::snprintf(text, sizeof(text), "%08X", word);
    digits += text;
  }
  return digits;
}

std::string ipLine(const std::string& local, const std::string& state,
                   int inode) {
  return "   0: " + local + " 00000000:0000 " + state +
         " 00000000:00000000 00:00000000 00000000  1000        0 " +
         std::to_string(inode) + " 1 0000000000000000 100 0 0 10 0\n";
}

TEST(ListeningSocketsTest, OnlyListeningTcpSocketsAreFound) {
  const std::string local = digitsOf(AF_INET, "127.0.0.1") + ":1F90";
  SocketsByInode sockets;
  addIpSockets("titles\n" + ipLine(local, "0A", 7) + ipLine(local, "01", 8),
               "tcp", sockets);
  EXPECT_EQ(described(sockets),
            std::vector<std::string>{"7 tcp 127.0.0.1:8080"});
}

TEST(ListeningSocketsTest, UdpSocketsWithoutAPeerAreFound) {
  const std::string local = digitsOf(AF_INET6, "fe80::1") + ":0035";
  SocketsByInode sockets;
  addIpSockets("titles\n" + ipLine(local, "07", 7) + ipLine(local, "01", 8),
               "udp", sockets);
  EXPECT_EQ(described(sockets), std::vector<std::string>{"7 udp [fe80::1]:53"});
}

TEST(ListeningSocketsTest, OnlyUnixSocketsThatAcceptConnectionsAreFound) {
  SocketsByInode sockets;
  addUnixSockets(
      "titles\n"
      "0000000000000000: 00000002 00000000 00010000 0001 01 7 /run/a b.sock\n"
      "0000000000000000: 00000003 00000000 00000000 0001 03 8 /run/a b.sock\n"
      "0000000000000000: 00000002 00000000 00010000 0001 01 9 @name\n",
      sockets);
  EXPECT_EQ(described(sockets),
            (std::vector<std::string>{"7 unix /run/a b.sock", "9 unix @name"}));
}

TEST(ListeningSocketsTest, AnIncompleteLineIsIgnored) {
  SocketsByInode sockets;
  addIpSockets("titles\n   0: 0100007F:1F90 00000000:0000 0A\n", "tcp",
               sockets);
  addUnixSockets("titles\n0000: 0002 0000 00010000 0001\n", sockets);
  EXPECT_TRUE(sockets.empty());
}

}  // namespace
}  // namespace vorn::launch
