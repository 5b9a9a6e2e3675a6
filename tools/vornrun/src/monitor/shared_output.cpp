#include "monitor/shared_output.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace vorn::run {

size_t pieceForPipe(std::string_view text) {
  if (text.size() <= PIPE_BUF) return text.size();
  const size_t end = text.rfind('\n', PIPE_BUF - 1);
  return end == std::string_view::npos ? PIPE_BUF : end + 1;
}

SharedOutput::SharedOutput(int fd) : fd_(fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0 || S_ISREG(status.st_mode)) return;
  if (S_ISSOCK(status.st_mode)) {
    kind_ = Kind::SOCKET;
    return;
  }
  kind_ = Kind::PIPE;
  // A new open file description, so that O_NONBLOCK is not shared.
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  const int own =
      ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (own < 0) return;
  fd_ = own;
  is_owned_ = true;
}

SharedOutput::~SharedOutput() {
  if (is_owned_) (void)::close(fd_);
}

ssize_t SharedOutput::write(std::string_view text) const {
  ssize_t written = -1;
  do {
    if (kind_ == Kind::SOCKET) {
      written =
          ::send(fd_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } else if (kind_ == Kind::PIPE) {
      pollfd poll = {fd_, POLLOUT, 0};
      // Only matters if the pipe could not be opened again.
      if (!is_owned_ && ::poll(&poll, 1, 0) == 0) return 0;
      written = ::write(fd_, text.data(), pieceForPipe(text));
    } else {
      written = ::write(fd_, text.data(), text.size());
    }
  } while (written < 0 && errno == EINTR);
  return written < 0 && errno == EAGAIN ? 0 : written;
}

}  // namespace vorn::run
