#include "control_client.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "descriptor.h"

namespace vorn::launch {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kTick{100};      // between two calls of onWait
constexpr milliseconds kFirstPause{1};  // before the second attempt to connect
constexpr milliseconds kLongestPause{100};

constexpr char kMayTakeEffect[] =
    "; the request was delivered and may still take effect";

/// Blocks every signal that can be blocked in this thread, until the end of the
/// scope.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    (void)::sigfillset(&all);
    (void)::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { (void)::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

std::string inSeconds(milliseconds span) {
  std::string text = std::to_string(span.count() / 1000);
  if (span.count() % 1000 != 0) {
    const std::string digits = std::to_string(1000 + span.count() % 1000);
    text += "." + digits.substr(1, digits.find_last_not_of('0'));
  }
  return text + " s";
}

/// The delivery of one request and the receipt of its reply.
class Exchange {
 public:
  Exchange(const ControlOptions& options, const ControlRequest& request)
      : options_(options), request_(request) {}

  /// Returns true if `response` holds the launcher's reply. Otherwise `reply`
  /// contains the reason.
  bool run(ControlReply& reply, ControlResponse& response) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (options_.socketPath.size() >= sizeof(address.sun_path)) {
      return end(reply, Outcome::NO_LAUNCHER,
                 "the path of the socket is longer than 107 bytes: " +
                     options_.socketPath);
    }
    // A NUL remains after the path.
    options_.socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const Descriptor socket(
        ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (socket.number() < 0) {
      return end(
          reply, Outcome::NOT_SENT,
          std::string("cannot create a socket: ") + std::strerror(errno));
    }
    return deliver(socket.number(), address, reply) &&
           receive(socket.number(), reply, response);
  }

 private:
  enum class Wait { READY, TIMED_OUT, CANCELLED };
  enum class Try { SENT, BUSY, FAILED };

  /// Always false.
  static bool end(ControlReply& reply, Outcome outcome, std::string message) {
    reply.outcome = outcome;
    reply.message = std::move(message);
    return false;
  }

  Clock::time_point withinTotal(Clock::time_point deadline) const {
    if (options_.totalLimit == milliseconds(0)) return deadline;
    return std::min(deadline, begin_ + options_.totalLimit);
  }

  /// The shorter of this limit and the total limit.
  milliseconds shorter(milliseconds limit) const {
    if (options_.totalLimit == milliseconds(0)) return limit;
    return std::min(limit, options_.totalLimit);
  }

  /// Waits until `fd` (-1: none) is readable or `deadline` is reached.
  Wait wait(int fd, Clock::time_point deadline) const {
    for (;;) {
      const Clock::time_point now = Clock::now();
      if (now >= deadline) return Wait::TIMED_OUT;
      // Rounded up: poll() with 0 ms would not wait.
      const auto left = std::chrono::ceil<milliseconds>(deadline - now);
      pollfd watched[] = {{options_.cancelFd, POLLIN, 0}, {fd, POLLIN, 0}};
      const int ready =
          ::poll(watched, 2, static_cast<int>(std::min(left, kTick).count()));
      if (ready > 0 && watched[0].revents != 0) return Wait::CANCELLED;
      if (ready > 0) return Wait::READY;
      if (options_.onWait) {
        options_.onWait(
            std::chrono::duration_cast<milliseconds>(Clock::now() - begin_));
      }
    }
  }

  bool isCancelled() const {
    if (options_.cancelFd < 0) return false;
    pollfd watched{options_.cancelFd, POLLIN, 0};
    int ready = 0;
    do {  // the signal that interrupts may be the one that cancels
      ready = ::poll(&watched, 1, 0);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
  }

  /// Connects and sends the request.
  bool deliver(int fd, const sockaddr_un& address, ControlReply& reply) const {
    const Clock::time_point deadline =
        withinTotal(begin_ + options_.connectLimit);
    milliseconds pause = kFirstPause;
    for (;;) {
      if (isCancelled()) {
        return end(reply, Outcome::NOT_SENT,
                   "given up before the request was sent");
      }
      const Try result = connectAndSend(fd, address, reply);
      if (result != Try::BUSY) return result == Try::SENT;
      // The queue of the launcher is full.
      const Clock::time_point next = Clock::now() + pause;
      if (wait(-1, std::min(next, deadline)) == Wait::CANCELLED) continue;
      if (Clock::now() >= deadline) {
        return end(reply, Outcome::NOT_SENT,
                   "the launcher is busy: it accepted no connection within " +
                       inSeconds(shorter(options_.connectLimit)) +
                       "; nothing was sent");
      }
      pause = std::min(pause * 2, kLongestPause);
    }
  }

  Try connectAndSend(int fd, const sockaddr_un& address,
                     ControlReply& reply) const {
    if (!isTrustedPath(reply)) return Try::FAILED;
    // The launcher reads from a connection without a time limit. If a signal
    // suspended this process here, the launcher would do nothing else until the
    // process continues.
    const SignalsBlocked blocked;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address),
                  sizeof(address)) != 0) {
      if (errno == EAGAIN) return Try::BUSY;
      end(reply, Outcome::NO_LAUNCHER, whyNot(errno));
      return Try::FAILED;
    }
    if (!isTrusted(fd, reply)) return Try::FAILED;
    const ssize_t sent = ::send(fd, &request_, sizeof(request_), MSG_NOSIGNAL);
    if (sent == sizeof(request_)) return Try::SENT;
    end(reply, Outcome::NO_LAUNCHER,
        sent < 0 ? std::string("the launcher closed the connection: ") +
                       std::strerror(errno)
                 : std::string("the request could not be sent in one piece"));
    return Try::FAILED;
  }

  /// The text for a failed connect().
  std::string whyNot(int error) const {
    const std::string& path = options_.socketPath;
    if (error == ENOENT) {
      return "no launcher is running: the socket " + path + " does not exist";
    }
    if (error == ECONNREFUSED) {
      return "no launcher is running: " + path +
             " is a stale socket, no process listens on it";
    }
    if (error == EACCES || error == EPERM) {
      return "no permission to connect to " + path;
    }
    return "cannot connect to " + path + ": " + std::strerror(error);
  }

  bool isTrustedUser(uid_t uid) const {
    return options_.trustAnyUser || uid == 0 || uid == ::geteuid();
  }

  /// Whether the path is not a symbolic link of another user. Such a link could
  /// lead to the socket of another program, which isTrusted() accepts if that
  /// program runs as root.
  bool isTrustedPath(ControlReply& reply) const {
    const std::string& path = options_.socketPath;
    struct stat status {};
    // connect() reports a path that cannot be examined.
    if (::lstat(path.c_str(), &status) != 0 || !S_ISLNK(status.st_mode) ||
        isTrustedUser(status.st_uid)) {
      return true;
    }
    return end(reply, Outcome::UNTRUSTED,
               path + " is a symbolic link that belongs to user " +
                   std::to_string(status.st_uid) +
                   ", neither root nor you; remove it, or use the path of the "
                   "launcher's own socket");
  }

  /// Whether the user of the listener is trusted; stores the listener in
  /// `reply`.
  bool isTrusted(int fd, ControlReply& reply) const {
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
      return end(reply, Outcome::UNTRUSTED,
                 std::string("cannot determine the user of the launcher: ") +
                     std::strerror(errno));
    }
    reply.launcherPid = peer.pid;
    reply.launcherUid = peer.uid;
    if (isTrustedUser(peer.uid)) return true;
    return end(reply, Outcome::UNTRUSTED,
               "the launcher on " + options_.socketPath + " belongs to user " +
                   std::to_string(peer.uid) + ", neither root nor you");
  }

  /// Reads the 24 bytes of the reply but not the end of the stream: processes
  /// that the launcher has started in the meantime keep the connection open.
  bool receive(int fd, ControlReply& reply, ControlResponse& response) const {
    const Clock::time_point deadline =
        withinTotal(Clock::now() + options_.replyLimit);
    char* const bytes = reinterpret_cast<char*>(&response);
    size_t count = 0;
    while (count < sizeof(response)) {
      const Wait waited = wait(fd, deadline);
      if (waited == Wait::TIMED_OUT) {
        return end(reply, Outcome::UNKNOWN,
                   "no reply within " +
                       inSeconds(shorter(options_.replyLimit)) +
                       kMayTakeEffect);
      }
      if (waited == Wait::CANCELLED) {
        return end(
            reply, Outcome::UNKNOWN,
            std::string("given up waiting for the reply") + kMayTakeEffect);
      }
      const ssize_t got =
          ::recv(fd, bytes + count, sizeof(response) - count, 0);
      if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (got <= 0) return endOfStream(got, count, reply);
      count += static_cast<size_t>(got);
    }
    return true;
  }

  static bool endOfStream(ssize_t result, size_t count, ControlReply& reply) {
    if (count > 0) {
      return end(reply, Outcome::PROTOCOL_ERROR,
                 "the reply ended after " + std::to_string(count) +
                     " of 24 bytes" + kMayTakeEffect);
    }
    return end(
        reply, Outcome::UNKNOWN,
        (result < 0 ? std::string("no reply: ") + std::strerror(errno)
                    : std::string("the launcher hung up without a reply")) +
            kMayTakeEffect);
  }

  const ControlOptions& options_;
  const ControlRequest& request_;
  const Clock::time_point begin_ = Clock::now();
};

/// Sends `cmd` for the node `name`. `response` is valid if `reply` is DONE,
/// FAILED or NOT_FOUND.
void exchange(const ControlOptions& options, ControlRequest::Cmd cmd,
              std::string_view name, ControlReply& reply,
              ControlResponse& response) {
  using Result = ControlResponse::Result;
  ControlRequest request;
  request.cmd = cmd;
  if (name.size() >= sizeof(request.name)) {
    reply.outcome = Outcome::INVALID_NAME;
    reply.message = "a node's name has at most 127 bytes; this one has " +
                    std::to_string(name.size());
    return;
  }
  if (name.find('\0') != std::string_view::npos) {
    reply.outcome = Outcome::INVALID_NAME;
    reply.message = "a node's name cannot contain a NUL byte";
    return;
  }
  name.copy(request.name, sizeof(request.name) - 1);
  if (!Exchange(options, request).run(reply, response)) return;
  switch (response.result) {
    case Result::SUCCESS:
      reply.outcome = Outcome::DONE;
      return;
    case Result::NOT_FOUND:
      reply.outcome = Outcome::NOT_FOUND;
      return;
    case Result::FAILED:
      reply.outcome = Outcome::FAILED;
      return;
  }
  reply.outcome = Outcome::PROTOCOL_ERROR;
  reply.message = "the reply has the unknown result " +
                  std::to_string(static_cast<int32_t>(response.result)) +
                  kMayTakeEffect;
}

}  // namespace

ControlClient::ControlClient(ControlOptions options)
    : options_(std::move(options)) {}

ControlReply ControlClient::command(ControlRequest::Cmd cmd,
                                    std::string_view name) {
  ControlReply reply;
  ControlResponse response;
  exchange(options_, cmd, name, reply, response);
  return reply;
}

ControlReply ControlClient::start(std::string_view name) {
  return command(ControlRequest::Cmd::START, name);
}

ControlReply ControlClient::stop(std::string_view name) {
  return command(ControlRequest::Cmd::STOP, name);
}

ControlReply ControlClient::restart(std::string_view name) {
  return command(ControlRequest::Cmd::RESTART, name);
}

ControlReply ControlClient::disable(std::string_view name) {
  return command(ControlRequest::Cmd::DISABLE, name);
}

ControlReply ControlClient::enable(std::string_view name) {
  return command(ControlRequest::Cmd::ENABLE, name);
}

StatusReply ControlClient::status(std::string_view name) {
  StatusReply reply;
  ControlResponse response;
  exchange(options_, ControlRequest::Cmd::STATUS, name, reply, response);
  if (!reply.isDone()) return reply;
  if (response.state < 0 ||
      response.state > static_cast<int32_t>(NodeState::DISABLED) ||
      response.pid < 0 || response.startSeconds < 0) {
    reply.outcome = Outcome::PROTOCOL_ERROR;
    reply.message = "the reply has the state " +
                    std::to_string(response.state) + ", the pid " +
                    std::to_string(response.pid) + " and the start " +
                    std::to_string(response.startSeconds);
    return reply;
  }
  reply.state = static_cast<NodeState>(response.state);
  reply.pid = response.pid;
  reply.startSeconds = response.startSeconds;
  return reply;
}

}  // namespace vorn::launch
