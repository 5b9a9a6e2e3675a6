#pragma once

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "control_client.h"
#include "live/launcher_process.h"

namespace vorn::launch {

/// Keeps up with the nodes of a launcher without asking it all the time, since
/// each question is a line in its log. It asks once for each node; then it
/// watches the nodes' processes and the launcher's children, and asks again for
/// those that may have changed, and for all once a minute: a change without a
/// process in it, such as the disabling of a stopped node, shows then.
class NodeWatcher {
 public:
  /// A change of one node, or what it was first.
  struct Change {
    std::string name;
    StatusReply status;  // DONE or NOT_FOUND
  };

  /// The longest time that the client should wait for a reply.
  static constexpr std::chrono::minutes kReplyLimit{5};

  /// Watches these nodes of `launcher`, which is borrowed. `client` asks for
  /// their status; `cancel_fd`, borrowed, is readable once a stop signal has
  /// arrived, -1 for none.
  NodeWatcher(ControlClient client, int cancel_fd,
              const LauncherProcess& launcher, std::vector<std::string> names);
  ~NodeWatcher();
  NodeWatcher(const NodeWatcher&) = delete;
  NodeWatcher& operator=(const NodeWatcher&) = delete;

  /// Waits until something has changed, but not longer than `limit`, and
  /// returns the changes, the first time every node. `wake_fd` ends the wait
  /// too as soon as it is readable; -1: none. So does a signal, such as that of
  /// a resized terminal. When the launcher cannot be asked, failure() tells.
  std::vector<Change> wait(std::chrono::milliseconds limit, int wake_fd = -1);

  /// Asks for this node at the next wait().
  void markStale(const std::string& name) { stale_.insert(name); }

  /// Asks for all nodes at the next wait().
  void markAllStale();

  /// The last request that failed; DONE if all requests succeeded. After a
  /// failure, call wait() no more.
  const ControlReply& failure() const { return failure_; }

  /// What is known of a node.
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
    // Set while a change is near that shows nowhere but in an answer.
    std::chrono::milliseconds pause{0};  // until the next question; 0: none
    Clock::time_point next{};            // when that is due
  };

  std::vector<Change> queryStale();
  void update(Watched& node, const StatusReply& status);
  void watchProcess(Watched& node) const;
  // False if a signal has ended it.
  bool waitForExits(std::chrono::milliseconds limit, int wake_fd);
  void markStaleByTime();
  void markStaleByChildren();
  void markStaleWithoutProcess();

  const LauncherProcess& launcher_;
  ControlClient client_;
  int cancel_fd_;
  bool sees_processes_;  // the launcher's children are in our sight
  std::vector<std::string> names_;
  std::map<std::string, Watched> nodes_;
  std::set<std::string> stale_;
  std::map<pid_t, int>
      unknown_children_;  // children of no known node: how often seen
  Clock::time_point next_full_{};
  ControlReply failure_;
};

}  // namespace vorn::launch
