#pragma once

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "control_client.h"
#include "live/launcher_process.h"

namespace vorn::launch {

/// Follows the nodes of a launcher with few status requests, since each request
/// is a line in its log. It requests the status of each node once; then it
/// watches the nodes' processes and the launcher's children, and repeats the
/// request for nodes that may have changed. It repeats all requests once a
/// minute, to notice changes that involve no process, such as the disabling of
/// a stopped node.
class NodeWatcher {
 public:
  /// A change of one node, or its first status.
  struct Change {
    std::string name;
    StatusReply status;  // DONE or NOT_FOUND
  };

  /// The longest time that the client should wait for a reply.
  static constexpr std::chrono::minutes kReplyLimit{5};

  /// Watches these nodes of `launcher`, which is borrowed. `client` sends the
  /// status requests; `cancel_fd`, borrowed, is readable once a stop signal has
  /// arrived, -1 for none.
  NodeWatcher(ControlClient client, int cancel_fd,
              const LauncherProcess& launcher, std::vector<std::string> names);
  ~NodeWatcher();
  NodeWatcher(const NodeWatcher&) = delete;
  NodeWatcher& operator=(const NodeWatcher&) = delete;

  /// Waits until something has changed, but not longer than `limit`, and
  /// returns the changes; the first call returns every node. A readable
  /// `wake_fd` (-1: none) or a signal, such as that of a resized terminal, also
  /// ends the wait. Check failure() afterwards.
  std::vector<Change> wait(std::chrono::milliseconds limit, int wake_fd = -1);

  /// Requests the status of this node at the next wait().
  void markStale(const std::string& name) { stale_.insert(name); }

  /// Requests the status of all nodes at the next wait().
  void markAllStale();

  /// The last request that failed; DONE if all requests succeeded. After a
  /// failure, wait() must not be called again.
  const ControlReply& failure() const { return failure_; }

  /// The last known status of a node.
  const StatusReply& status(const std::string& name) const {
    return nodes_.at(name).status;
  }

  const std::vector<std::string>& names() const { return names_; }

 private:
  using Clock = std::chrono::steady_clock;

  struct Watched {
    StatusReply status;
    bool isKnown = false;
    int pidFd = -1;  // of its process; -1: none
    // Set while a change is expected that only a reply shows.
    std::chrono::milliseconds pause{0};  // until the next request; 0: none
    Clock::time_point next{};            // the time of the next request
  };

  std::vector<Change> queryStale();
  void update(Watched& node, const StatusReply& status);
  void watchProcess(Watched& node) const;
  // False if a signal has interrupted it.
  bool waitForExits(std::chrono::milliseconds limit, int wake_fd);
  void markStaleByTime();
  void markStaleByChildren();
  void markStaleWithoutProcess();

  const LauncherProcess& launcher_;
  ControlClient client_;
  int cancel_fd_;
  bool sees_processes_;  // the launcher's children are visible
  std::vector<std::string> names_;
  std::map<std::string, Watched> nodes_;
  std::set<std::string> stale_;
  std::map<pid_t, int> unknown_children_;  // of no known node: number of checks
  Clock::time_point next_full_{};
  ControlReply failure_;
};

}  // namespace vorn::launch
