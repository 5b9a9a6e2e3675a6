#pragma once

#include <sys/epoll.h>

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "vornlib/time.h"

namespace vorn::launch {

/// The launcher's only event source. It waits for the watched descriptors and
/// returns the handlers of those that are ready; the caller runs them. Owns the
/// epoll descriptor and the handlers, never the watched descriptors. Main
/// thread only. A failure is one ERROR line and a `false` or empty result.
class Epoll {
 public:
  using Handler = std::function<void()>;

  Epoll() = default;
  ~Epoll();
  Epoll(const Epoll&) = delete;  // the kernel holds addresses of our handlers
  Epoll& operator=(const Epoll&) = delete;

  /// Creates the epoll descriptor, close-on-exec. True if it is already open.
  bool open();

  /// Watches `fd` for `events`, an EPOLL* mask other than 0, level-triggered
  /// unless the mask says otherwise. On failure (`fd` already watched, or
  /// refused by the kernel) the set is unchanged.
  bool registerHandler(int fd, Handler handler, uint32_t events);

  /// Stops watching `fd` without closing it. Do not call it for a descriptor of
  /// the batch being served: its pointer from wait() would dangle.
  bool unregisterHandler(int fd);

  /// Waits at most `timeout` milliseconds (-1: no limit). Returns the ready
  /// handlers in the kernel's order, each at most once, borrowed until the next
  /// call; none on a timeout or failure, and an interrupting signal is a
  /// failure.
  std::vector<Handler*> wait(int timeout);

 private:
  int epoll_fd_ = -1;                // -1 while closed
  std::map<int, Handler> handlers_;  // by descriptor; the values never move
  std::vector<epoll_event> events_;  // wait()'s buffer, one per handler or more
};

}  // namespace vorn::launch
