#include "control_node.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <new>
#include <string>

#include "epoll.h"
#include "node.h"
#include "node_manager.h"
#include "vornlib/retry_on_eintr.h"
#include "vornlib/time.h"
#include "vornlib/trace.h"

namespace vorn::launch {
namespace {

constexpr unsigned int kSocketMode = 0666;  // every local user can connect
constexpr int kBacklog = 5;
constexpr int kHangUpWaitMs = 100;

/// Closes its descriptor, unless it is -1, at the end of the scope.
class Connection {
 public:
  explicit Connection(int fd) : fd_(fd) {}
  ~Connection() {
    if (fd_ >= 0) (void)::close(fd_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  int fd() const { return fd_; }

 private:
  int fd_;
};

/// Accepts a pending connection; -1 if there is none.
// KEEP: without SOCK_CLOEXEC, so that a child forked while a command is served
// keeps the connection open; clients read 24 bytes and do not wait for the end
// of the stream. Intended.
// Test: test_control.py,
// test_a_child_started_by_start_keeps_the_connection_open
int acceptConnection(int listening_fd) {
  sockaddr_un peer{};
  socklen_t length = sizeof(peer);
  return ::accept(listening_fd, reinterpret_cast<sockaddr*>(&peer), &length);
}

/// Whether the peer has closed the connection within kHangUpWaitMs.
bool waitForHangUp(int fd) {
  pollfd connection{};
  connection.fd = fd;
  connection.events = 0;  // only hang-up and error conditions
  const int ready =
      retryOnEintr([&] { return ::poll(&connection, 1, kHangUpWaitMs); });
  return ready == 1 && (connection.revents & POLLHUP) != 0;
}

/// The reply to a command: performs `operation` on the node `name`, if any.
std::shared_ptr<ControlResponse> respond(NodeManager& nodes, const char* name,
                                         bool (Node::*operation)()) {
  auto response = std::make_shared<ControlResponse>();
  Node* const node = nodes.findNode(std::string(name));
  if (node == nullptr) {
    response->result = ControlResponse::Result::NOT_FOUND;
  } else if (!(node->*operation)()) {
    response->result = ControlResponse::Result::FAILED;
  }
  return response;
}

}  // namespace

ControlNode& ControlNode::getInstance() {
  static ControlNode* instance = nullptr;
  static std::once_flag once;
  if (instance == nullptr) {
    std::call_once(once, [] { instance = new (std::nothrow) ControlNode(); });
  }
  return *instance;
}

ControlNode::ControlNode() {
  std::filesystem::create_directories(kControlDirectory);
  node_manager_ = &NodeManager::getInstance();
}

ControlNode::~ControlNode() {
  if (socket_fd_ >= 0) {
    (void)::close(socket_fd_);
    socket_fd_ = -1;
  }
}

int ControlNode::createSocket(const char* name, int type, unsigned int mode) {
  const int fd = ::socket(AF_UNIX, type, 0);
  if (fd < 0) {
    VTRACE(kError, kPlain, "Failed to open socket '%s': %s", name,
           std::strerror(errno));
    return -1;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  // KEEP: a path that does not fit is truncated without an error. Intended.
  // Test: ControlNodeTest.CreateSocketCutsAPathAfter107Characters
  (void)std::snprintf(address.sun_path, sizeof(address.sun_path), "%s/%s",
                      kControlDirectory, name);
  if (::unlink(address.sun_path) == -1 && errno != ENOENT) {
    VTRACE(kError, kPlain, "Failed to unlink old socket '%s': %s", name,
           std::strerror(errno));
    (void)::close(fd);
    return -1;
  }
  // The length of the whole address, not of the path in it.
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address),
             sizeof(address)) == -1) {
    VTRACE(kError, kPlain, "Failed to bind socket '%s': %s", name,
           std::strerror(errno));
    (void)::unlink(address.sun_path);
    (void)::close(fd);
    return -1;
  }
  if (::chmod(address.sun_path, mode) == -1) {
    VTRACE(kWarn, kPlain, "chmod failed, error: %s", std::strerror(errno));
  }
  VTRACE(kInfo, kPlain, "Created socket '%s' with mode '%o'", address.sun_path,
         mode);
  return fd;
}

bool ControlNode::init(Epoll* epoll) {
  const int fd = createSocket(kControlSocketName, SOCK_STREAM, kSocketMode);
  if (fd < 0) return false;
  (void)::fcntl(fd, F_SETFD, FD_CLOEXEC);
  // Only the listening socket: accepted connections are blocking.
  (void)::fcntl(fd, F_SETFL, O_NONBLOCK);
  if (::listen(fd, kBacklog) == -1) {
    (void)::close(fd);  // in this order: the log line follows the close
    VTRACE(kError, kPlain, "listen failed");
    return false;
  }
  if (!epoll->registerHandler(
          fd, [this] { controlHandler(); }, EPOLLIN)) {
    (void)::close(fd);
    return false;
  }
  using Cmd = ControlRequest::Cmd;
  const auto bound = [this](std::shared_ptr<ControlResponse> (
                         ControlNode::*handler)(const char*)) -> Command {
    return [this, handler](const char* name) { return (this->*handler)(name); };
  };
  handlers_ = {
      {Cmd::START, bound(&ControlNode::nodeStart)},
      {Cmd::STOP, bound(&ControlNode::nodeStop)},
      {Cmd::RESTART, bound(&ControlNode::nodeRestart)},
      {Cmd::STATUS, bound(&ControlNode::nodeStatus)},
      {Cmd::DISABLE, bound(&ControlNode::nodeDisable)},
      {Cmd::ENABLE, bound(&ControlNode::nodeEnable)},
  };
  socket_fd_ = fd;
  return true;
}

// KEEP: one blocking recv() without a time limit, and no second one for the
// rest: a silent client blocks the launcher, and a request in two pieces is
// refused. So commands never overlap each other or supervision. Intended.
// Test: test_control.py,
// test_a_silent_client_blocks_the_launcher_until_it_disconnects
void ControlNode::controlHandler() {
  std::shared_ptr<ControlResponse> response;  // released after the close
  const Connection connection(acceptConnection(socket_fd_));
  if (connection.fd() < 0) return;

  ControlRequest request;
  const ssize_t received = retryOnEintr(
      [&] { return ::recv(connection.fd(), &request, sizeof(request), 0); });
  if (received != sizeof(request)) {
    // KEEP: after a short read errno is outdated, but it is printed
    // nevertheless. Test: ControlHandlerTest.RefusesARequestInTwoPieces
    VTRACE(kError, kPlain, "received: %d expected: %d errno: %d",
           static_cast<int>(received), static_cast<int>(sizeof(request)),
           errno);
    return;
  }
  VTRACE(kInfo, kPlain, "control cmd: %d", static_cast<int>(request.cmd));
  const auto handler = handlers_.find(request.cmd);
  if (handler == handlers_.end()) {
    // KEEP: readers of the log know this spelling.
    // Test: UnknownCommandTest.IsOneWarningAndNoReply
    VTRACE(kWarn, kPlain, "unknow cmd: %d", static_cast<int>(request.cmd));
    return;
  }
  const std::string name(request.name,
                         ::strnlen(request.name, sizeof(request.name)));
  response = handler->second(name.c_str());
  if (response == nullptr) return;

  // Without MSG_NOSIGNAL: the launcher ignores SIGPIPE.
  const ssize_t sent = retryOnEintr([&] {
    return ::send(connection.fd(), response.get(), sizeof(*response), 0);
  });
  if (sent != sizeof(*response)) {
    VTRACE(kError, kPlain, "send fail, size: %d", static_cast<int>(sent));
    return;
  }
  if (!waitForHangUp(connection.fd())) VTRACE(kWarn, kPlain, "poll timeout");
}

std::shared_ptr<ControlResponse> ControlNode::nodeStart(const char* name) {
  return respond(*node_manager_, name, &Node::start);
}

std::shared_ptr<ControlResponse> ControlNode::nodeStop(const char* name) {
  return respond(*node_manager_, name, &Node::stop);
}

std::shared_ptr<ControlResponse> ControlNode::nodeRestart(const char* name) {
  return respond(*node_manager_, name, &Node::restart);
}

std::shared_ptr<ControlResponse> ControlNode::nodeStatus(const char* name) {
  auto response = std::make_shared<ControlResponse>();
  const Node* const node = node_manager_->findNode(std::string(name));
  if (node == nullptr) {
    response->result = ControlResponse::Result::NOT_FOUND;
    return response;
  }
  response->pid = node->pid;
  response->state = static_cast<int32_t>(node->state);
  response->startSeconds = std::chrono::duration_cast<std::chrono::seconds>(
                               node->startWallTime.time_since_epoch())
                               .count();
  return response;
}

std::shared_ptr<ControlResponse> ControlNode::nodeDisable(const char* name) {
  return respond(*node_manager_, name, &Node::disable);
}

std::shared_ptr<ControlResponse> ControlNode::nodeEnable(const char* name) {
  return respond(*node_manager_, name, &Node::enable);
}

}  // namespace vorn::launch
