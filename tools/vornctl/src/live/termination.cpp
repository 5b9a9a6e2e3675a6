#include "live/termination.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "descriptor.h"

namespace vorn::launch {
namespace {

using Clock = std::chrono::steady_clock;
using TerminationOutcome = Termination::Outcome;
using std::chrono::milliseconds;

constexpr size_t kMostAtOnce = 500;  // a process has 1024 descriptors, usually
// A process exits soon after SIGKILL unless it waits for a device.
constexpr milliseconds kKillLimit{5000};

/// A process that is being terminated.
struct Target {
  Termination& result;
  std::unique_ptr<Descriptor> pidFd;  // null: it has exited or is given up
};

/// Opens the process; no descriptor after its exit or an error.
Target openTarget(Termination& result) {
  const Process& process = result.process;
  // The header of glibc 2.36 for pidfd_open() does not support C++.
  auto descriptor = std::make_unique<Descriptor>(
      static_cast<int>(::syscall(SYS_pidfd_open, process.pid, 0)));
  if (descriptor->number() < 0 && errno != ESRCH) {
    result.error = std::string("cannot open the process: ") +
                   (errno == ENOSYS ? "pidfd_open(2) needs Linux 5.3"
                                    : std::strerror(errno));
    return {result, nullptr};
  }
  const auto present = readProcess(process.pid);
  const bool is_same = descriptor->number() >= 0 && present &&
                       present->isAlive() &&
                       present->startTicks == process.startTicks;
  if (!is_same) result.outcome = TerminationOutcome::TERMINATED;
  return {result, is_same ? std::move(descriptor) : nullptr};
}

void send(std::vector<Target>& targets, int signal) {
  for (Target& target : targets) {
    if (!target.pidFd) continue;
    if (::syscall(SYS_pidfd_send_signal, target.pidFd->number(), signal,
                  nullptr, 0) == 0 ||
        errno == ESRCH) {
      continue;
    }
    target.result.error =
        std::string("cannot send a signal: ") + std::strerror(errno);
    target.pidFd.reset();
  }
}

/// Waits until all targets have exited, which then have this outcome. False
/// if `limit` has passed or `cancel_fd` is readable.
bool waitForExits(std::vector<Target>& targets, milliseconds limit,
                  int cancel_fd, TerminationOutcome outcome) {
  const Clock::time_point deadline = Clock::now() + limit;
  for (;;) {
    std::vector<pollfd> watched = {{cancel_fd, POLLIN, 0}};
    std::vector<Target*> owners;
    for (Target& target : targets) {
      if (!target.pidFd) continue;
      watched.push_back({target.pidFd->number(), POLLIN, 0});
      owners.push_back(&target);
    }
    if (owners.empty()) return true;
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    const int ready =
        ::poll(watched.data(), watched.size(),
               static_cast<int>(std::max<int64_t>(0, left.count())));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0 || watched.front().revents != 0) return false;
    for (size_t i = 0; i < owners.size(); ++i) {
      if (watched[i + 1].revents == 0) continue;
      owners[i]->result.outcome = outcome;
      owners[i]->pidFd.reset();
    }
  }
}

void setErrors(std::vector<Target>& targets, const std::string& error) {
  for (Target& target : targets) {
    if (target.pidFd) target.result.error = error;
  }
}

/// False after `cancel_fd` has become readable.
bool terminateSome(std::vector<Target>& targets, milliseconds grace,
                   int cancel_fd) {
  const auto is_cancelled = [&] {
    pollfd watched{cancel_fd, POLLIN, 0};
    return ::poll(&watched, 1, 0) > 0;
  };
  send(targets, SIGTERM);
  if (waitForExits(targets, grace, cancel_fd, TerminationOutcome::TERMINATED))
    return true;
  if (is_cancelled()) {
    setErrors(targets, "interrupted while it was terminating");
    return false;
  }
  send(targets, SIGKILL);
  if (!waitForExits(targets, kKillLimit, cancel_fd,
                    TerminationOutcome::KILLED)) {
    setErrors(targets, "it has not exited after SIGKILL yet");
  }
  return !is_cancelled();
}

}  // namespace

std::vector<Termination> terminate(const std::vector<Process>& processes,
                                   milliseconds grace, int cancel_fd) {
  std::vector<Termination> results;
  results.reserve(processes.size());
  for (const Process& process : processes) {
    results.push_back({process, TerminationOutcome::RUNNING, ""});
  }
  for (size_t begin = 0; begin < results.size(); begin += kMostAtOnce) {
    std::vector<Target> targets;
    const size_t end = std::min(results.size(), begin + kMostAtOnce);
    for (size_t i = begin; i < end; ++i) {
      targets.push_back(openTarget(results[i]));
    }
    if (!terminateSome(targets, grace, cancel_fd)) {
      for (size_t i = end; i < results.size(); ++i) {
        results[i].error = "interrupted before it was terminated";
      }
      break;
    }
  }
  return results;
}

}  // namespace vorn::launch
