// Requests of any length and content through ControlNode::controlHandler() to
// nodes with fake processes: nothing is started, signalled or awaited.
//
// Input, for each connection: a byte of faults, the request's length (a byte),
// and the request.

#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "control_node.h"
#include "epoll.h"
#include "node_manager.h"
#include "support/check.h"
#include "support/input.h"
#include "support/log.h"
#include "support/process_calls.h"
#include "support/registry.h"
#include "support/system_calls.h"
#include "vorn/control_protocol.h"

namespace vorn::fuzz {

// The linker redirects the call of std::filesystem::create_directories() here,
// because a launcher on this machine can use the control directory.
bool wrappedCreateDirectories(const std::filesystem::path& path) __asm__(
    "__wrap__ZNSt10filesystem18create_directoriesERKNS_7__cxx114pathE");
bool wrappedCreateDirectories(const std::filesystem::path& /*path*/) {
  return false;
}

namespace {

using launch::ControlNode;
using launch::ControlRequest;
using launch::ControlResponse;
using launch::Node;
using launch::NodeManager;
using launch::NodeState;
using test::failWith;
using test::real;
using test::systemCalls;
using Cmd = ControlRequest::Cmd;
using Result = ControlResponse::Result;

// The byte of faults.
constexpr unsigned int kReceiveInterrupted = 1;
constexpr unsigned int kReceiveFails = 2;
constexpr unsigned int kSendInterrupted = 4;
constexpr unsigned int kSendFails = 8;
constexpr unsigned int kSendIsCut = 16;
constexpr unsigned int kClientStays = 32;
constexpr unsigned int kProcessesFail = 64;  // forks, and signals to children
constexpr unsigned int kChildrenExit = 128;  // after the reply

constexpr int kConnection = 1'000'000;  // no descriptor of this process
constexpr pid_t kFirstPid = 5001;

Node& addNode(const std::string& name) {
  auto node = std::make_unique<Node>(name);
  node->argv = {"/bin/" + name};
  Node& added = *node;
  NodeManager::getInstance().addNode(name, std::move(node));
  return added;
}

/// One node of each kind. `required` has no cycle.
void addNodes() {
  (void)addNode("plain");
  addNode("oneshot").oneshot = true;
  addNode("manual").autostart = false;
  addNode("disabled").disabled = true;
  addNode("slow").sleep = 1500;
  addNode("chain").required = {"plain", "chain", "nobody", "oneshot"};
  addNode("head").required = {"chain", "slow"};
  (void)addNode(std::string(127, 'l'));  // fills the field with its NUL
  (void)addNode(std::string(128, 'm'));  // leaves no room for a NUL
  (void)addNode("");
}

ControlNode& control() {
  static ControlNode& instance = []() -> ControlNode& {
    // The socket is not bound; accept() below returns the connections.
    systemCalls().unlink = [](const char*) { return 0; };
    systemCalls().bind = [](int, const sockaddr*, socklen_t) { return 0; };
    systemCalls().chmod = [](const char*, mode_t) { return 0; };
    systemCalls().listen = [](int, int) { return 0; };
    static launch::Epoll epoll;
    static ControlNode node;
    check(epoll.open() && node.init(&epoll), "the socket is open");
    systemCalls() = {};
    return node;
  }();
  return instance;
}

/// One connection as the launcher sees it.
class FakedConnection {
 public:
  FakedConnection(unsigned int faults, std::string_view request)
      : faults_(faults), request_(request) {
    systemCalls().accept = [](int, sockaddr*, socklen_t*) {
      return kConnection;
    };
    systemCalls().recv = [this](int fd, void* bytes, size_t size, int) {
      check(fd == kConnection && closed_ == 0, "an open connection is read");
      return receive(bytes, size);
    };
    systemCalls().send = [this](int fd, const void* bytes, size_t size, int) {
      check(fd == kConnection && closed_ == 0, "an open connection is written");
      return send({static_cast<const char*>(bytes), size});
    };
    systemCalls().poll = [this](pollfd* polled, nfds_t count, int timeout) {
      check(count == 1 && polled->fd == kConnection && timeout == 100,
            "the launcher waits 100 ms for the client alone");
      polled->revents = POLLHUP;
      return has(kClientStays) ? 0 : 1;
    };
    systemCalls().close = [this](int fd) {
      if (fd != kConnection) return real.close(fd);
      ++closed_;
      return 0;
    };
  }

  const std::string& reply() const { return reply_; }
  int closed() const { return closed_; }
  bool isReceived() const {
    return !has(kReceiveFails) && request_.size() >= sizeof(ControlRequest);
  }
  bool isAnswered() const { return !has(kSendFails) && !has(kSendIsCut); }

 private:
  bool has(unsigned int fault) const { return (faults_ & fault) != 0; }

  ssize_t receive(void* bytes, size_t size) {
    if (has(kReceiveInterrupted)) {
      faults_ &= ~kReceiveInterrupted;
      return failWith(EINTR);
    }
    check(!is_read_, "a request is read by one call");
    is_read_ = true;
    if (has(kReceiveFails)) return failWith(ECONNRESET);
    const size_t count = std::min(size, request_.size());
    if (count > 0) std::memcpy(bytes, request_.data(), count);
    return static_cast<ssize_t>(count);
  }

  ssize_t send(std::string_view bytes) {
    if (has(kSendInterrupted)) {
      faults_ &= ~kSendInterrupted;
      return failWith(EINTR);
    }
    check(reply_.empty(), "a reply is sent by one call");
    reply_ = bytes;
    if (has(kSendFails)) return failWith(EPIPE);
    return static_cast<ssize_t>(has(kSendIsCut) ? bytes.size() / 2
                                                : bytes.size());
  }

  unsigned int faults_;
  std::string_view request_;
  std::string reply_;
  bool is_read_ = false;
  int closed_ = 0;
};

/// Checks the effect of `command` on `node`.
void checkEffect(Cmd command, Result result, const Node& node) {
  const bool is_success = result == Result::SUCCESS;
  switch (command) {
    case Cmd::START:
    case Cmd::RESTART:
      check(!is_success || node.state == NodeState::RUNNING,
            "a node that was started runs");
      break;
    case Cmd::STOP:
      check(is_success == (node.state != NodeState::RUNNING),
            "a node that was stopped does not run");
      break;
    case Cmd::DISABLE:
      check(node.disabled && node.state == NodeState::DISABLED,
            "a node is disabled also when its stop fails");
      break;
    case Cmd::ENABLE:
      check(is_success && !node.disabled, "enabling always succeeds");
      break;
    case Cmd::STATUS:
      check(is_success, "every node has a status");
      break;
  }
}

void checkReply(const ControlRequest& request, const std::string& reply) {
  check(reply.size() == sizeof(ControlResponse), "a reply has 24 bytes");
  ControlResponse response;
  std::memcpy(&response, reply.data(), sizeof(response));
  const std::string name(request.name,
                         ::strnlen(request.name, sizeof(request.name)));
  const Node* const node = NodeManager::getInstance().findNode(name);
  check((response.result == Result::NOT_FOUND) == (node == nullptr),
        "a node that is there is found, and no other");
  check(response.result == Result::SUCCESS ||
            response.result == Result::NOT_FOUND ||
            response.result == Result::FAILED,
        "the result is one of three");
  check(response.padding == 0, "the padding is zero");
  ControlResponse expected;
  expected.result = response.result;
  if (node != nullptr && request.cmd == Cmd::STATUS) {
    expected.pid = node->pid;
    expected.state = static_cast<int32_t>(node->state);
    expected.startSeconds =
        node->startWallTime.time_since_epoch() / std::chrono::seconds(1);
  }
  check(std::memcmp(&expected, &response, sizeof(expected)) == 0,
        "only the reply of an existing node has a status");
  if (node != nullptr) checkEffect(request.cmd, response.result, *node);
}

void checkNodes(pid_t next_pid) {
  for (const auto& node : NodeManager::getInstance().nodes()) {
    check(node->state == NodeState::RUNNING
              ? node->pid >= kFirstPid && node->pid < next_pid
              : node->pid == 0 || node->pid >= kFirstPid,
          "a node that runs has a child");
    check(node->mutex.try_lock(), "no lock is left");
    node->mutex.unlock();
  }
}

/// Every child exits by itself and is collected.
void letChildrenExit() {
  for (const auto& node : NodeManager::getInstance().nodes()) {
    if (node->pid != 0) node->reap({});
  }
}

void serve(test::ProcessCalls& processes, unsigned int faults,
           std::string_view bytes) {
  const bool processes_fail = (faults & kProcessesFail) != 0;
  processes.fork_fails = processes_fail;
  processes.kill_error = [&, processes_fail](pid_t pid, int) {
    check(pid >= kFirstPid && pid < processes.next_pid,
          "only children are signalled");
    return processes_fail ? ESRCH : 0;
  };
  FakedConnection connection(faults, bytes);
  control().controlHandler();
  check(connection.closed() == 1, "the connection is closed once");

  ControlRequest request;
  if (connection.isReceived()) {
    std::memcpy(&request, bytes.data(), sizeof(request));
  }
  if (connection.isReceived() && request.cmd <= Cmd::ENABLE) {
    checkReply(request, connection.reply());
  } else {
    check(connection.reply().empty(), "an invalid request has no reply");
  }
  checkNodes(processes.next_pid);
  if ((faults & kChildrenExit) != 0) letChildrenExit();
}

}  // namespace
}  // namespace vorn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vorn;
  const fuzz::LogSink log;
  (void)fuzz::control();
  test::ProcessCalls processes;
  processes.next_pid = fuzz::kFirstPid;
  fuzz::addNodes();
  fuzz::Input input(data, size);
  while (!input.empty()) {
    const unsigned int faults = input.byte();
    const size_t length = input.byte();
    fuzz::serve(processes, faults, input.bytes(length));
  }
  fuzz::forgetEverything();
  return 0;
}
