#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

// The socket of sd_notify(3) of one node.

namespace vorn::run {

/// Creates an abstract datagram socket with a name that the kernel chooses, so
/// that the node needs no permission on a file. Returns the descriptor, which
/// exec closes, or -1 and errno; `name` becomes the value of NOTIFY_SOCKET.
int createNotifySocket(std::string& name);

/// A received datagram and the process that sent it, as the kernel says.
struct NotifyDatagram {
  std::string_view text;  // valid until the next datagram
  pid_t sender = 0;
  bool isCut = false;  // it was larger than any valid message
};

/// The next datagram, or nothing. Passed descriptors are closed.
std::optional<NotifyDatagram> receiveNotifyDatagram(int fd);

/// Whether the process is `ancestor` or one of its descendants.
bool isDescendantOf(pid_t pid, pid_t ancestor);

}  // namespace vorn::run
