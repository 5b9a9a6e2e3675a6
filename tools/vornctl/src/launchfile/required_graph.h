#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "launchfile/launch_file.h"

namespace vorn::launch {

/// How long the launcher really sleeps for a `sleep`: it counts microseconds in
/// 32 bits.
uint32_t effectiveSleepMs(uint32_t sleep_ms);

/// The nodes of a launch file, by their index in it, and the restarts that a
/// stop of one brings to others.
class RequiredGraph {
 public:
  /// One node in the `required` of another. A node's own name and names of
  /// nobody are none; a name given twice is two.
  struct Edge {
    size_t to = 0;
    Place place;  // of the name
  };

  /// An edge with the node that it starts from.
  struct Step {
    size_t from = 0;
    Edge edge;
  };

  /// What one stop brings with it, itself included, if all nodes run and none
  /// ends before it is killed.
  struct Cascade {
    int64_t stops = 0;
    std::chrono::milliseconds duration{0};
  };

  /// `file` must live as long as the graph.
  explicit RequiredGraph(const LaunchFile& file);

  const std::vector<Edge>& edgesFrom(size_t node) const { return edges_[node]; }

  /// Cycles of two or more nodes, each with a node that no cycle before it has.
  /// Every node that is in a cycle is in one of these, unless the cycles before
  /// have more than a million edges.
  const std::vector<std::vector<Step>>& cycles() const { return cycles_; }

  /// By node; nothing for one whose stop may never end, by a cycle. At most a
  /// year.
  std::vector<std::optional<Cascade>> cascades() const;

  /// How long the launcher may take to exit after SIGTERM, with `per_stop`, at
  /// least 10 s, for each stop. At most a year. Nothing if it may never exit.
  std::optional<std::chrono::milliseconds> stopOfAll(
      std::chrono::milliseconds per_stop) const;

 private:
  struct Visit {
    size_t node;
    size_t next;  // of its edges
  };

  /// The state of a search in depth.
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
                    const std::vector<std::optional<Cascade>>& others) const;
  bool reachesCycle(size_t node,
                    const std::vector<std::optional<Cascade>>& others) const;

  const LaunchFile& file_;
  std::vector<std::vector<Edge>> edges_;
  std::vector<std::vector<Step>> cycles_;
  size_t cycle_steps_ = 0;  // in all cycles_
  std::vector<bool> is_in_cycle_;
  std::vector<size_t> order_;  // required nodes before those that require them
};

}  // namespace vorn::launch
