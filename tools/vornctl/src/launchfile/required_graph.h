#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "launchfile/launch_file.h"
#include "vorn/control_protocol.h"

namespace vorn::launch {

/// The time that the launcher sleeps for this `sleep`, which it converts to
/// microseconds in 32 bits.
uint32_t effectiveSleepMs(uint32_t sleep_ms);

/// The nodes of a launch file, by their index in it; the restarts of others
/// that the stop of one causes, and the time that the launcher needs for it.
class RequiredGraph {
 public:
  /// One node in the `required` of another. A node's own name and unknown names
  /// are not edges; a name that is given twice is two edges.
  struct Edge {
    size_t to = 0;
    SourceLocation location;  // of the name
  };

  /// An edge with the node that it starts from.
  struct Step {
    size_t from = 0;
    Edge edge;
  };

  /// The stops that one stop causes, itself included, if all nodes run and each
  /// of them has to be killed.
  struct Cascade {
    int64_t stops = 0;
    std::chrono::milliseconds duration{0};  // at most a year
    bool isEndless = false;  // reaches a cycle, which the values above follow
                             // only once
  };

  /// Borrows `file`.
  explicit RequiredGraph(const LaunchFile& file);

  const std::vector<Edge>& edgesFrom(size_t node) const { return edges_[node]; }

  /// Cycles of two or more nodes, each with a node that is in no earlier cycle.
  /// Each node of a cycle is in one of them, unless the earlier cycles have
  /// more than a million edges.
  const std::vector<std::vector<Step>>& cycles() const { return cycles_; }

  /// The cascade of each node.
  const std::vector<Cascade>& cascades() const { return cascades_; }

  /// The time after SIGTERM in which the launcher exits. At most a year.
  /// Nothing if it may never exit.
  std::optional<std::chrono::milliseconds> stopOfAll() const;

  /// The longest time that the launcher is busy with this command on this node,
  /// according to the launch file. At most a day.
  std::chrono::milliseconds longestDuration(ControlRequest::Cmd cmd,
                                            const std::string& name) const;

  /// The default time to wait for the reply: twice the longest duration, and
  /// half a minute for the work that the launcher does when the request
  /// arrives.
  std::chrono::milliseconds replyLimit(ControlRequest::Cmd cmd,
                                       const std::string& name) const;

 private:
  struct Visit {
    size_t node;
    size_t next;  // of its edges
  };

  /// The state of a depth-first search.
  struct Search {
    std::vector<size_t> position;  // by node: in `visits`, if it is there
    std::vector<Visit> visits;     // from the first node to the current one
    std::vector<Step> path;        // the edges between the visited nodes
    std::vector<size_t> outside;   // positions of nodes in no known cycle

    void enter(size_t node);
    void leave();
  };

  void walk(size_t start, Search& search, std::vector<bool>& is_seen);
  void addCycle(Search& search, const Step& back);
  Cascade cascadeOf(const std::vector<Edge>& edges, size_t running_above,
                    std::chrono::milliseconds per_stop,
                    const std::vector<Cascade>& others) const;
  std::vector<size_t> runningFrom(size_t node,
                                  const std::vector<std::vector<Edge>>& edges,
                                  std::vector<size_t>& reached_from) const;

  const LaunchFile& file_;
  std::vector<std::vector<Edge>> edges_;
  std::vector<std::vector<Step>> cycles_;
  size_t cycle_steps_ = 0;  // in all cycles_
  std::vector<bool> is_in_cycle_;
  std::vector<size_t> order_;  // required nodes before those that require them
  std::vector<size_t> rank_;   // by node: its position in order_
  std::vector<Cascade> cascades_;
};

}  // namespace vorn::launch
