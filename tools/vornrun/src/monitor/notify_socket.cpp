#include "monitor/notify_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "monitor/process_stat.h"

namespace vorn::run {

int createNotifySocket(std::string& name) {
  const int fd =
      ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  const int on = 1;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  socklen_t size = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (::setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0 ||
      ::bind(fd, generic, sizeof(sa_family_t)) != 0 ||
      ::getsockname(fd, generic, &size) != 0) {
    const int error = errno;
    (void)::close(fd);
    errno = error;
    return -1;
  }
  const size_t name_size = size - offsetof(sockaddr_un, sun_path);
  name = "@" + std::string(address.sun_path + 1, name_size - 1);
  return fd;
}

std::optional<NotifyDatagram> receiveNotifyDatagram(int fd) {
  static char text[4096];
  iovec part = {text, sizeof(text)};
  // Without room for descriptors, the kernel closes those of the sender.
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t size = ::recvmsg(fd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (size < 0) return std::nullopt;
  NotifyDatagram datagram;
  datagram.text = {text, static_cast<size_t>(size)};
  datagram.isCut = (message.msg_flags & MSG_TRUNC) != 0;
  const cmsghdr* header = CMSG_FIRSTHDR(&message);
  if (header != nullptr && header->cmsg_level == SOL_SOCKET &&
      header->cmsg_type == SCM_CREDENTIALS) {
    ucred sender{};
    std::memcpy(&sender, CMSG_DATA(header), sizeof(sender));
    datagram.sender = sender.pid;
  }
  return datagram;
}

bool isDescendantOf(pid_t pid, pid_t ancestor) {
  constexpr int kDeepest = 64;
  for (int depth = 0; depth < kDeepest && pid > 1; ++depth) {
    if (pid == ancestor) return true;
    pid = readProcessStat(pid).parent;
  }
  return false;
}

}  // namespace vorn::run
