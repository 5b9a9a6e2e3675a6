#include "start/network.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "descriptor.h"

namespace vorn::run {
namespace {

constexpr char kHosts[] =
    "# 10.0.0.9 robot\n10.0.0.1\trobot.example robot # base\n"
    "::1 robot\nx robot\n";

/// The addresses as texts with the port.
std::string found(const std::string& host) {
  std::string result;
  for (const SocketAddress& address : findAddresses(host, "80", kHosts)) {
    char text[INET6_ADDRSTRLEN] = "";
    if (address.storage.ss_family == AF_INET) {
      sockaddr_in v4{};
      std::memcpy(&v4, &address.storage, sizeof(v4));
      (void)::inet_ntop(AF_INET, &v4.sin_addr, text, sizeof(text));
      EXPECT_EQ(ntohs(v4.sin_port), 80);
    } else {
      sockaddr_in6 v6{};
      std::memcpy(&v6, &address.storage, sizeof(v6));
      (void)::inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof(text));
      EXPECT_EQ(ntohs(v6.sin6_port), 80);
    }
    result += std::string(text) + " ";
  }
  return result;
}

TEST(Network, AnAddressIsItself) {
  EXPECT_EQ(found("192.0.2.1"), "192.0.2.1 ");
  EXPECT_EQ(found("::1"), "::1 ");
}

TEST(Network, ANameHasTheAddressesOfTheFile) {
  EXPECT_EQ(found("robot"), "10.0.0.1 ::1 ");
  EXPECT_EQ(found("robot.example"), "10.0.0.1 ");
  EXPECT_EQ(found("unknown"), "");
}

TEST(Network, LocalhostNeedsNoFile) {
  EXPECT_EQ(found("localhost"), "127.0.0.1 ::1 ");
}

TEST(Network, APathThatIsTooLongIsNotASocket) {
  EXPECT_TRUE(unixAddress("/" + std::string(107, 'x')).empty());
  EXPECT_FALSE(unixAddress("/" + std::string(106, 'x')).empty());
}

/// A socket in the file system that does not listen yet.
class NetworkSocket : public ::testing::Test {
 protected:
  NetworkSocket() {
    (void)::bind(socket_.number(), generic(), addresses_[0].size);
  }
  ~NetworkSocket() override { (void)::unlink(path_.c_str()); }

  const sockaddr* generic() const {
    return reinterpret_cast<const sockaddr*>(&addresses_[0].storage);
  }

  const std::string path_ = ::testing::TempDir() + "network_test_" +
                            std::to_string(::getpid()) + ".sock";
  const std::vector<SocketAddress> addresses_ = unixAddress(path_);
  const launch::Descriptor socket_{
      ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

TEST_F(NetworkSocket, AcceptsConnectionsOnceItListens) {
  EXPECT_FALSE(acceptsConnection(addresses_, 0));
  ASSERT_EQ(::listen(socket_.number(), 8), 0);
  EXPECT_TRUE(acceptsConnection(addresses_, 0));
}

TEST_F(NetworkSocket, AnAddressOfAnUnknownFamilyIsSkipped) {
  ASSERT_EQ(::listen(socket_.number(), 8), 0);
  SocketAddress unknown;
  unknown.storage.ss_family = AF_MAX;
  EXPECT_FALSE(acceptsConnection({unknown}, 0));
  EXPECT_TRUE(acceptsConnection({unknown, addresses_[0]}, 0));
}

TEST_F(NetworkSocket, AFullQueueShowsThatItListens) {
  ASSERT_EQ(::listen(socket_.number(), 0), 0);
  const launch::Descriptor client(
      ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::connect(client.number(), generic(), addresses_[0].size), 0);
  EXPECT_TRUE(acceptsConnection(addresses_, 0));
}

}  // namespace
}  // namespace vorn::run
