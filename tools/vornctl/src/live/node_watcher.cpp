#include "live/node_watcher.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace vorn::launch {
namespace {

using std::chrono::milliseconds;

constexpr std::chrono::minutes kFullRound{1};
constexpr milliseconds kChildrenInterval{
    250};                         // between two checks of the children
constexpr int kMostPidFds = 256;  // a process has 1024 descriptors, usually
constexpr milliseconds kShortestPause{100};
constexpr milliseconds kLongestPause{1000};
// A child that has not executed its program yet, or a command of the launcher
// itself, soon changes or exits.
constexpr int kChecksBeforeQuery = 4;

bool isSame(const StatusReply& a, const StatusReply& b) {
  return a.outcome == b.outcome && a.state == b.state && a.pid == b.pid &&
         a.startSeconds == b.startSeconds;
}

}  // namespace

NodeWatcher::NodeWatcher(ControlClient client, int cancel_fd,
                         const LauncherProcess& launcher,
                         std::vector<std::string> names)
    : launcher_(launcher),
      client_(std::move(client)),
      cancel_fd_(cancel_fd),
      sees_processes_(launcher.sharesPids && childrenOf(launcher.pid)),
      names_(std::move(names)) {
  for (const std::string& name : names_) nodes_[name];
  failure_.outcome = Outcome::DONE;
}

NodeWatcher::~NodeWatcher() {
  for (const auto& [name, node] : nodes_) {
    if (node.pidFd >= 0) (void)::close(node.pidFd);
  }
}

void NodeWatcher::markAllStale() { next_full_ = {}; }

std::vector<NodeWatcher::Change> NodeWatcher::wait(milliseconds limit,
                                                   int wake_fd) {
  const Clock::time_point deadline = Clock::now() + limit;
  for (;;) {
    markStaleByTime();
    if (sees_processes_) markStaleByChildren();
    auto changes = queryStale();
    const auto left =
        std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
    if (!changes.empty() || !failure_.isDone() || left.count() <= 0) {
      return changes;
    }
    if (!waitForExits(std::min(left, kChildrenInterval), wake_fd)) return {};
    pollfd woken[] = {{wake_fd, POLLIN, 0}, {cancel_fd_, POLLIN, 0}};
    if (::poll(woken, 2, 0) > 0) return {};
  }
}

std::vector<NodeWatcher::Change> NodeWatcher::queryStale() {
  std::vector<Change> changes;
  for (const std::string& name : names_) {
    if (stale_.erase(name) == 0) continue;
    StatusReply status = client_.status(name);
    // The launcher may have exited; a second request shows whether it has.
    if (status.outcome == Outcome::UNKNOWN) status = client_.status(name);
    if (!status.isDone() && status.outcome != Outcome::NOT_FOUND &&
        status.outcome != Outcome::INVALID_NAME) {
      failure_ = static_cast<const ControlReply&>(status);
      return changes;
    }
    if (status.launcherPid != launcher_.pid &&
        status.outcome != Outcome::INVALID_NAME) {
      failure_.outcome = Outcome::NO_LAUNCHER;
      failure_.message = "the launcher has exited, and another one is running";
      return changes;
    }
    Watched& node = nodes_[name];
    const bool is_change = !node.isKnown || !isSame(node.status, status);
    update(node, status);
    if (is_change) changes.push_back({name, status});
  }
  return changes;
}

void NodeWatcher::update(Watched& node, const StatusReply& status) {
  const bool is_change = !node.isKnown || !isSame(node.status, status);
  node.isKnown = true;
  node.status = status;
  if (is_change) watchProcess(node);
  // Whether a change is expected without a visible start or exit of a process.
  bool is_about_to_change = false;
  if (status.isDone()) {
    const bool has_process = status.pid != 0;
    const bool is_collected_soon =
        has_process && !isProcessAlive(launcher_, status.pid);
    const bool is_waited_for =
        has_process || status.state == NodeState::RESTARTING;
    is_about_to_change =
        is_collected_soon || (!sees_processes_ && is_waited_for);
  }
  if (!is_about_to_change) {
    node.pause = milliseconds(0);
    return;
  }
  node.pause = is_change || node.pause == milliseconds(0)
                   ? kShortestPause
                   : std::min(node.pause * 2, kLongestPause);
  node.next = Clock::now() + node.pause;
}

void NodeWatcher::watchProcess(Watched& node) const {
  if (node.pidFd >= 0) (void)::close(node.pidFd);
  node.pidFd = -1;
  if (!sees_processes_ || !node.status.isDone() || node.status.pid == 0) return;
  const auto count =
      std::count_if(nodes_.begin(), nodes_.end(),
                    [](const auto& entry) { return entry.second.pidFd >= 0; });
  if (count >= kMostPidFds) return;
  // Without a pidfd, the list of children shows the exit a little later. The
  // header of glibc 2.36 for pidfd_open() does not support C++.
  node.pidFd = static_cast<int>(::syscall(SYS_pidfd_open, node.status.pid, 0));
}

bool NodeWatcher::waitForExits(milliseconds limit, int wake_fd) {
  std::vector<pollfd> watched = {{wake_fd, POLLIN, 0}, {cancel_fd_, POLLIN, 0}};
  std::vector<const std::string*> owners;
  for (const auto& [name, node] : nodes_) {
    if (node.pidFd < 0) continue;
    watched.push_back({node.pidFd, POLLIN, 0});
    owners.push_back(&name);
  }
  for (const auto& [name, node] : nodes_) {
    if (node.pause == milliseconds(0)) continue;
    const auto left = std::chrono::ceil<milliseconds>(node.next - Clock::now());
    limit = std::clamp(left, milliseconds(0), limit);
  }
  const int ready =
      ::poll(watched.data(), watched.size(), static_cast<int>(limit.count()));
  if (ready <= 0) return ready == 0;
  for (size_t i = 0; i < owners.size(); ++i) {
    if (watched[i + 2].revents == 0) continue;
    Watched& node = nodes_[*owners[i]];
    // It stays readable; the next reply contains the new status.
    (void)::close(node.pidFd);
    node.pidFd = -1;
    stale_.insert(*owners[i]);
  }
  return true;
}

void NodeWatcher::markStaleByTime() {
  const Clock::time_point now = Clock::now();
  if (now >= next_full_) {
    stale_.insert(names_.begin(), names_.end());
    next_full_ = now + kFullRound;
  }
  for (const auto& [name, node] : nodes_) {
    if (node.pause != milliseconds(0) && now >= node.next) {
      stale_.insert(name);
    }
  }
}

void NodeWatcher::markStaleByChildren() {
  const auto children = childrenOf(launcher_.pid);
  if (!children) {
    // The launcher has exited; the next request fails.
    stale_.insert(names_.begin(), names_.end());
    return;
  }
  std::set<pid_t> present(children->begin(), children->end());
  for (const auto& [name, node] : nodes_) {
    if (!node.isKnown || node.status.pid == 0) continue;
    const bool is_present = present.erase(node.status.pid) > 0;
    if (!is_present && node.pause == milliseconds(0)) stale_.insert(name);
  }
  std::map<pid_t, int> unknown;
  for (const pid_t child : present) {
    unknown[child] = unknown_children_[child] + 1;
    if (unknown[child] <= kChecksBeforeQuery) {
      const auto name = nodeOf(child);
      if (name && nodes_.count(*name) > 0) {
        unknown[child] = kChecksBeforeQuery + 1;
        stale_.insert(*name);
      }
    }
    if (unknown[child] == kChecksBeforeQuery) markStaleWithoutProcess();
  }
  unknown_children_ = std::move(unknown);
}

// A child without the name of a node can belong to any node that is not known
// to run.
void NodeWatcher::markStaleWithoutProcess() {
  for (const auto& [name, node] : nodes_) {
    if (node.status.pid == 0) stale_.insert(name);
  }
}

}  // namespace vorn::launch
