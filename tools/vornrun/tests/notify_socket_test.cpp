#include "monitor/notify_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

namespace vorn::run {
namespace {

class NotifySocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    receiver_ = createNotifySocket(name_);
    ASSERT_GE(receiver_, 0);
    ASSERT_EQ(name_[0], '@');
    sender_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name_.data() + 1, name_.size() - 1);
    const auto size = offsetof(sockaddr_un, sun_path) + name_.size();
    ASSERT_EQ(::connect(sender_, reinterpret_cast<sockaddr*>(&address),
                        static_cast<socklen_t>(size)),
              0);
  }
  void TearDown() override {
    (void)::close(sender_);
    (void)::close(receiver_);
  }

  /// Sends a datagram together with a descriptor.
  void sendWithDescriptor(std::string text, int fd) const {
    iovec part = {text.data(), text.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &fd, sizeof(fd));
    ASSERT_GT(::sendmsg(sender_, &message, 0), 0);
  }

  std::string name_;
  int receiver_ = -1;
  int sender_ = -1;
};

TEST_F(NotifySocketTest, ADatagramHasItsSender) {
  ASSERT_EQ(::send(sender_, "READY=1", 7, 0), 7);
  const auto datagram = receiveNotifyDatagram(receiver_);
  ASSERT_TRUE(datagram);
  EXPECT_EQ(datagram->text, "READY=1");
  EXPECT_EQ(datagram->sender, ::getpid());
  EXPECT_FALSE(datagram->isCut);
  EXPECT_FALSE(receiveNotifyDatagram(receiver_));
}

TEST_F(NotifySocketTest, AHugeDatagramIsMarked) {
  const std::string text(100000, '\n');
  ASSERT_GT(::send(sender_, text.data(), text.size(), 0), 0);
  const auto datagram = receiveNotifyDatagram(receiver_);
  ASSERT_TRUE(datagram);
  EXPECT_TRUE(datagram->isCut);
}

TEST_F(NotifySocketTest, AnEmptyDatagramIsHarmless) {
  ASSERT_EQ(::send(sender_, "", 0, 0), 0);
  const auto datagram = receiveNotifyDatagram(receiver_);
  ASSERT_TRUE(datagram);
  EXPECT_EQ(datagram->text, "");
}

TEST_F(NotifySocketTest, APassedDescriptorIsClosed) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  sendWithDescriptor("BARRIER=1", ends[1]);
  (void)::close(ends[1]);
  const auto datagram = receiveNotifyDatagram(receiver_);
  ASSERT_TRUE(datagram);
  EXPECT_EQ(datagram->sender, ::getpid());
  char byte = 0;
  EXPECT_EQ(::read(ends[0], &byte, 1), 0);  // no process has the writing end
  (void)::close(ends[0]);
}

TEST(DescendantTest, AChildIsADescendantOfItsParentAndOfItself) {
  const pid_t child = ::fork();
  if (child == 0) {
    (void)::pause();
    ::_exit(0);
  }
  EXPECT_TRUE(isDescendantOf(child, ::getpid()));
  EXPECT_TRUE(isDescendantOf(child, child));
  EXPECT_FALSE(isDescendantOf(::getpid(), child));
  EXPECT_FALSE(isDescendantOf(0, ::getpid()));
  (void)::kill(child, SIGKILL);
  (void)::waitpid(child, nullptr, 0);
}

}  // namespace
}  // namespace vorn::run
