#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "reading.h"

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

  /// `reading` must live as long as the graph.
  explicit RequiredGraph(const Reading& reading);

  const std::vector<Edge>& edgesFrom(size_t node) const { return edges_[node]; }

  /// Cycles of two or more nodes: at least one through every node that is in
  /// any, each with a node that no cycle before it has.
  const std::vector<std::vector<Step>>& cycles() const { return cycles_; }

  /// By node; nothing for one whose stop may never end, by a cycle. At most a
  /// year.
  std::vector<std::optional<Cascade>> cascades() const;

  /// How long SIGTERM may take to end the launcher, with `per_stop` for each
  /// stop. Nothing if it may never end.
  std::optional<std::chrono::milliseconds> stopOfAll(
      std::chrono::milliseconds per_stop) const;

 private:
  void walk(size_t start, std::vector<int>& marks);
  void addCycle(const std::vector<Step>& path, const Step& back);
  Cascade cascadeOf(size_t node, size_t running_above,
                    std::chrono::milliseconds per_stop,
                    const std::vector<std::optional<Cascade>>& others) const;
  bool reachesCycle(size_t node,
                    const std::vector<std::optional<Cascade>>& others) const;

  const Reading& reading_;
  std::vector<std::vector<Edge>> edges_;
  std::vector<std::vector<Step>> cycles_;
  std::vector<bool> is_in_cycle_;
  std::vector<size_t> order_;  // required nodes before those that require them
};

}  // namespace vorn::launch
