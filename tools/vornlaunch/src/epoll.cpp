#include "epoll.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <utility>

#include "vornlib/time.h"
#include "vornlib/trace.h"

namespace vorn::launch {

Epoll::~Epoll() {
  if (epoll_fd_ >= 0) {
    (void)::close(epoll_fd_);
    epoll_fd_ = -1;
  }
}

bool Epoll::open() {
  if (epoll_fd_ >= 0) return true;
  epoll_fd_ = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll_fd_ == -1) {
    VTRACE(kError, kPlain, "epoll create failed.");
    return false;
  }
  return true;
}

bool Epoll::registerHandler(int fd, Handler handler, uint32_t events) {
  if (events == 0) {
    VTRACE(kError, kPlain, "not specify events.");
    return false;
  }
  events_.resize(handlers_.size() + 1);  // so that wait() does not have to
  const auto [entry, inserted] = handlers_.emplace(fd, std::move(handler));
  if (!inserted) {
    VTRACE(kError, kPlain, "emplace fail");
    return false;
  }
  epoll_event event{};
  event.events = events;
  event.data.ptr = &entry->second;
  if (::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event) == -1) {
    VTRACE(kError, kPlain, "epoll_ctl failed to add fd.");
    handlers_.erase(entry);
    return false;
  }
  return true;
}

bool Epoll::unregisterHandler(int fd) {
  if (::epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr) == -1) {
    VTRACE(kError, kPlain, "epoll_ctl failed to remove fd.");
    return false;
  }
  if (handlers_.erase(fd) != 1) {
    VTRACE(kError, kPlain, "handler erase failed.");
    return false;
  }
  return true;
}

std::vector<Epoll::Handler*> Epoll::wait(int timeout) {
  std::vector<Handler*> ready;
  // As many events as handlers, so that one call reports every ready descriptor
  // once. Without handlers this is 0, which the kernel refuses.
  const int reported = ::epoll_wait(
      epoll_fd_, events_.data(), static_cast<int>(handlers_.size()), timeout);
  // KEEP: an interrupting signal is logged as a failure like any other and not
  // retried, which lets main see exited. Intended.
  // Test: OpenEpollTest.AnInterruptedWaitIsAFailureAndNotRepeated
  if (reported == -1) {
    VTRACE(kError, kPlain, "epoll_wait failed.");
    return ready;
  }
  ready.reserve(static_cast<size_t>(reported));
  for (int i = 0; i < reported; ++i) {
    ready.push_back(
        static_cast<Handler*>(events_[static_cast<size_t>(i)].data.ptr));
  }
  return ready;
}

}  // namespace vorn::launch
