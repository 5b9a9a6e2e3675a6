#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "live/log_history.h"
#include "live/log_source.h"
#include "live/node_status.h"

// What the log says about the recent life of each node.

namespace vorn::launch {

/// The time for which exits are counted.
constexpr int64_t kRecentUs = 3'600'000'000;
/// A node is in a crash loop if it has exited by itself this often in this
/// time.
constexpr size_t kCrashLoopExits = 3;
constexpr int64_t kCrashLoopUs = 600'000'000;

/// The recent life of one node.
struct NodeHistory {
  std::optional<HistoryEvent> start;  // the last one
  std::optional<HistoryEvent> exit;   // the last one
  // The last reason why it was not started or not stopped, after that exit.
  std::optional<HistoryEvent> obstacle;
  std::deque<int64_t> ownExits;  // times of exits by itself, oldest first

  /// Exits by itself of a node that restarts, in the time kRecentUs before
  /// `now_us`.
  size_t restarts(int64_t now_us) const;
  bool isCrashLoop(int64_t now_us) const;
};

/// The histories of nodes by their names in the log.
class NodeHistories {
 public:
  void add(const HistoryEvent& event);

  /// Null if the log has nothing about the node; valid until the next add().
  const NodeHistory* find(const std::string& name_in_log) const;

 private:
  std::map<std::string, NodeHistory> nodes_;
};

/// Reports the events in the log since `since_us` (0: all), oldest first. Gives
/// each record first to `reader`, whose false ends the reading, unless it is
/// empty. False and `error` if the log cannot be read.
bool readEvents(const LauncherProcess& launcher, const LogLocation& location,
                int64_t since_us, const LogHistory::Receiver& receiver,
                const LogReader& reader, std::string& error);

/// Adds to `histories` what the log says about `views` since kRecentUs before
/// `now_us`, and about the last exits of those that do not run. False and
/// `error` if the log cannot be read.
bool readRecent(const LauncherProcess& launcher, const LogLocation& location,
                int64_t now_us, const std::vector<NodeView>& views,
                NodeHistories& histories, std::string& error);

/// As readRecent(), since `since_us` if that is earlier, and passes the events
/// since then to `receiver`, unless it is empty.
bool readRecentAnd(const LauncherProcess& launcher, const LogLocation& location,
                   int64_t now_us, int64_t since_us,
                   const LogHistory::Receiver& receiver,
                   const std::vector<NodeView>& views, NodeHistories& histories,
                   std::string& error);

/// As readRecent(), only the last exits of oneshots that have run.
bool readOneshotExits(const LauncherProcess& launcher,
                      const LogLocation& location,
                      const std::vector<NodeView>& views,
                      NodeHistories& histories, std::string& error);

/// Adds the histories to the views; a oneshot that has failed becomes FAILED.
void addHistory(const NodeHistories& histories, int64_t now_us,
                std::vector<NodeView>& views);

}  // namespace vorn::launch
