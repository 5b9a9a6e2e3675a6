#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

namespace vorn::test {

/// Replacements of the system calls that the client's code makes, for the
/// thread that sets them; an empty function is the real call. The linker
/// redirects the calls.
struct SocketCalls {
  std::function<int(int, int, int)> socket;
  std::function<int(int, const sockaddr*, socklen_t)> connect;
  std::function<int(int, int, int, void*, socklen_t*)> getsockopt;
  std::function<ssize_t(int, const void*, size_t, int)> send;
  std::function<ssize_t(int, void*, size_t, int)> recv;
  std::function<int(pollfd*, nfds_t, int)> poll;
  std::function<int(int, const sigset_t*, sigset_t*)> pthread_sigmask;
  std::function<int(const char*, struct stat*)> lstat;

  /// The names of the calls that this thread has made, replaced or not,
  /// including `close` and `shutdown`.
  std::vector<std::string> made;
};

/// The replacements in force in this thread.
SocketCalls& socketCalls();

/// The real calls.
extern const SocketCalls realSocketCalls;

}  // namespace vorn::test
