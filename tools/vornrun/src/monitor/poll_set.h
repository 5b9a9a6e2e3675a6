#pragma once

#include <poll.h>

#include <cstddef>

namespace vorn::run {

/// The descriptors of one poll(2). Owns none of them.
class PollSet {
 public:
  /// Negative descriptors are ignored.
  void add(int fd, short events) {
    if (fd < 0 || count_ == kMost) return;
    polls_[count_++] = {fd, events, 0};
  }

  /// Waits at most `timeout_ms`, -1 forever. After an interruption by a signal,
  /// no descriptor has an event.
  void wait(int timeout_ms) {
    if (::poll(polls_, count_, timeout_ms) >= 0) return;
    for (pollfd& poll : polls_) poll.revents = 0;
  }

  /// Whether any event was reported for the descriptor.
  bool hasEvent(int fd) const {
    for (size_t i = 0; i < count_; ++i)
      if (polls_[i].fd == fd) return polls_[i].revents != 0;
    return false;
  }

 private:
  static constexpr size_t kMost = 24;
  pollfd polls_[kMost] = {};
  size_t count_ = 0;
};

}  // namespace vorn::run
