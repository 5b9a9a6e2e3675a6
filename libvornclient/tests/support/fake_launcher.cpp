#include "support/fake_launcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace vorn::test {
namespace {

int require(int result, const char* call) {
  if (result >= 0) return result;
  throw std::runtime_error(std::string(call) + ": " + std::strerror(errno));
}

}  // namespace

FakeLauncher::FakeLauncher(Service service, int backlog) {
  char directory[] = "/tmp/fake-launcher-XXXXXX";
  if (::mkdtemp(directory) == nullptr) throw std::runtime_error("mkdtemp");
  folder_ = directory;
  path_ = folder_ + "/socket";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
  listening_fd_ =
      require(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  require(::bind(listening_fd_, reinterpret_cast<const sockaddr*>(&address),
                 sizeof(address)),
          "bind");
  require(::listen(listening_fd_, backlog), "listen");
  stop_fd_ = require(::eventfd(0, EFD_CLOEXEC), "eventfd");
  if (service) serve(std::move(service));
}

FakeLauncher::~FakeLauncher() {
  (void)::eventfd_write(stop_fd_, 1);
  if (thread_.joinable()) thread_.join();
  (void)::close(listening_fd_);
  (void)::close(stop_fd_);
  (void)::unlink(path_.c_str());
  (void)::rmdir(folder_.c_str());
}

void FakeLauncher::serve(Service service) {
  thread_ = std::thread([this, service = std::move(service)] {
    for (;;) {
      pollfd watched[] = {{stop_fd_, POLLIN, 0}, {listening_fd_, POLLIN, 0}};
      if (::poll(watched, 2, -1) < 0) continue;
      if (watched[0].revents != 0) return;
      const int connection = ::accept(listening_fd_, nullptr, nullptr);
      if (connection < 0) continue;
      service(connection);
      (void)::close(connection);
    }
  });
}

FakeLauncher::Service FakeLauncher::replyWith(std::string bytes) {
  return [bytes = std::move(bytes)](int connection) {
    vorn::launch::ControlRequest request;
    (void)::recv(connection, &request, sizeof(request), MSG_WAITALL);
    (void)::send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  };
}

std::string FakeLauncher::bytesOf(
    const vorn::launch::ControlResponse& response) {
  return {reinterpret_cast<const char*>(&response), sizeof(response)};
}

std::string FakeLauncher::readToEnd(int connection) {
  std::string bytes;
  char piece[4096];
  ssize_t count = 0;
  while ((count = ::recv(connection, piece, sizeof(piece), 0)) > 0) {
    bytes.append(piece, static_cast<size_t>(count));
  }
  return bytes;
}

}  // namespace vorn::test
