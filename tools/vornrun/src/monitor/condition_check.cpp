#include "monitor/condition_check.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "file_text.h"
#include "monitor/clock.h"
#include "option_values.h"

namespace vorn::run {
namespace {

CheckResult failure(int error) { return {false, std::strerror(error)}; }

}  // namespace

ConditionCheck::ConditionCheck(const Condition& condition,
                               const MonitoredNode& node,
                               const std::string& directory)
    : condition_(condition), node_(node), directory_(directory) {
  if (condition.kind == Condition::Kind::TCP) {
    const auto [host, port] = splitHostPort(condition.value);
    addresses_ = findAddresses(host, port, readFileText("/etc/hosts").text);
  } else if (condition.kind == Condition::Kind::UNIX) {
    addresses_ = unixAddress(condition.value);
  }
}

ConditionCheck::~ConditionCheck() { closeDescriptor(); }

void ConditionCheck::closeDescriptor() {
  if (fd_ >= 0) (void)::close(fd_);
  fd_ = -1;
}

void ConditionCheck::begin(int64_t now_ms, int64_t timeout_ms) {
  is_running_ = true;
  timeout_ms_ = timeout_ms;
  ends_at_ms_ = now_ms + timeout_ms;
  switch (condition_.kind) {
    case Condition::Kind::PATH:
      return finish(::access(condition_.value.c_str(), F_OK) == 0
                        ? CheckResult{true, ""}
                        : failure(errno));
    case Condition::Kind::FILE:
      return finish(checkFile());
    case Condition::Kind::TCP:
    case Condition::Kind::UNIX:
      next_address_ = 0;
      return connectToNextAddress(EADDRNOTAVAIL);
    case Condition::Kind::EXEC:
    case Condition::Kind::HTTP:
      return beginCommand();
    case Condition::Kind::NOTIFY:
    case Condition::Kind::FD:
      return finish({false, "cannot be checked"});
  }
}

/// Compares with the previous check, not with the clock, which may jump.
CheckResult ConditionCheck::checkFile() {
  struct stat status {};
  if (::stat(condition_.value.c_str(), &status) != 0) return failure(errno);
  const bool has_changed = !last_change_ ||
                           last_change_->tv_sec != status.st_mtim.tv_sec ||
                           last_change_->tv_nsec != status.st_mtim.tv_nsec;
  last_change_ = status.st_mtim;
  return {has_changed, has_changed ? "" : "not changed since the last probe"};
}

/// `error` is that of the previous address.
void ConditionCheck::connectToNextAddress(int error) {
  while (next_address_ < addresses_.size()) {
    const SocketAddress& address = addresses_[next_address_++];
    closeDescriptor();
    fd_ = ::socket(address.storage.ss_family,
                   SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const auto* const target =
        reinterpret_cast<const sockaddr*>(&address.storage);
    // EAGAIN: a listening Unix socket with a full queue; busy is not dead.
    if (fd_ >= 0 &&
        (::connect(fd_, target, address.size) == 0 || errno == EAGAIN))
      return finish({true, ""});
    error = errno;
    if (fd_ >= 0 && error == EINPROGRESS) return;
  }
  finish(failure(error));
}

void ConditionCheck::beginCommand() {
  std::vector<std::string> command = {"/bin/sh", "-c", condition_.value};
  if (condition_.kind == Condition::Kind::HTTP) {
    const int64_t ms = std::max<int64_t>(timeout_ms_, 1);
    std::string fraction = std::to_string(1000 + ms % 1000).substr(1);
    command = {"curl",          "--fail",
               "--silent",      "--show-error",
               "--output",      "/dev/null",
               "--max-time",    std::to_string(ms / 1000) + "." + fraction,
               condition_.value};
  }
  output_.clear();
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) return finish(failure(errno));
  fd_ = ends[0];
  (void)::fcntl(fd_, F_SETFL, O_NONBLOCK);
  ChildProcess::Options options;
  options.node = &node_;
  options.directory = directory_;
  options.output = ends[1];
  const bool is_started = command_.start(command, options);
  const int error = errno;
  (void)::close(ends[1]);
  if (!is_started) finish(failure(error));
}

void ConditionCheck::finish(CheckResult result) {
  closeDescriptor();
  is_running_ = false;
  result_ = std::move(result);
}

/// Reads all output, so that the command never waits; keeps the beginning.
void ConditionCheck::readOutput() {
  constexpr size_t kKept = 200;
  constexpr int kMostReads = 16;
  char text[4096];
  for (int i = 0; i < kMostReads && fd_ >= 0; ++i) {
    const ssize_t size = ::read(fd_, text, sizeof(text));
    if (size < 0) return;
    if (size == 0) return closeDescriptor();
    output_.append(text, std::min(static_cast<size_t>(size),
                                  kKept - std::min(kKept, output_.size())));
  }
}

CheckResult ConditionCheck::commandResult() {
  readOutput();
  const int status = command_.waitStatus();
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {true, ""};
  std::string message = output_.substr(0, output_.find('\n'));
  if (message.empty())
    message = WIFEXITED(status)
                  ? "exit status " + std::to_string(WEXITSTATUS(status))
                  : "signal " + std::to_string(WTERMSIG(status));
  return {false, message};
}

void ConditionCheck::addPolls(PollSet& polls) const {
  polls.add(command_.descriptor(), POLLIN);
  if (is_running_) polls.add(fd_, command_.isRunning() ? POLLIN : POLLOUT);
}

int64_t ConditionCheck::deadline() const {
  if (result_) return 0;
  return is_running_ ? ends_at_ms_ : kNever;
}

std::optional<CheckResult> ConditionCheck::proceed(const PollSet& polls,
                                                   int64_t now_ms) {
  if (command_.isRunning()) {
    if (is_running_ && polls.hasEvent(fd_)) readOutput();
    if (command_.isFinished() && is_running_) finish(commandResult());
  } else if (is_running_ && polls.hasEvent(fd_)) {
    int error = 0;
    socklen_t size = sizeof(error);
    (void)::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error == 0) {
      finish({true, ""});
    } else {
      connectToNextAddress(error);
    }
  }
  if (is_running_ && now_ms >= ends_at_ms_) {
    command_.kill();
    finish({false, "no result within " + durationText(timeout_ms_)});
  }
  std::optional<CheckResult> result;
  result.swap(result_);
  return result;
}

void ConditionCheck::stop() {
  constexpr int kLongestMs = 1000;
  if (!command_.isRunning()) return;
  command_.kill();
  PollSet polls;
  polls.add(command_.descriptor(), POLLIN);
  polls.wait(kLongestMs);
  (void)command_.isFinished();
}

}  // namespace vorn::run
