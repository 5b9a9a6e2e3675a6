#include "required_graph.h"

#include <algorithm>
#include <string>
#include <unordered_map>

namespace vorn::launch {
namespace {

using std::chrono::milliseconds;

constexpr uint32_t kMicrosecondsPerMillisecond = 1000;
constexpr milliseconds kStop = std::chrono::seconds(10);
constexpr milliseconds kPause{200};  // between a stop and the start behind it
constexpr milliseconds kLongest = std::chrono::hours(24 * 365);
constexpr int64_t kMostStops = 1'000'000'000;
constexpr size_t kAll = static_cast<size_t>(-1);

enum Mark : int { kNew, kOnPath, kDone };

}  // namespace

uint32_t effectiveSleepMs(uint32_t sleep_ms) {
  return sleep_ms * kMicrosecondsPerMillisecond / kMicrosecondsPerMillisecond;
}

RequiredGraph::RequiredGraph(const Reading& reading)
    : reading_(reading),
      edges_(reading.nodes.size()),
      is_in_cycle_(reading.nodes.size()) {
  std::unordered_map<std::string, size_t> index;
  for (size_t i = 0; i < reading.nodes.size(); ++i) {
    index.emplace(reading.nodes[i].name.value, i);
  }
  for (size_t i = 0; i < reading.nodes.size(); ++i) {
    const NodeReading& node = reading.nodes[i];
    for (const Text& name : node.required) {
      const auto found = index.find(name.value);
      if (found == index.end() || name.value == node.name.value) continue;
      edges_[i].push_back({found->second, name.place});
    }
  }
  std::vector<int> marks(edges_.size(), kNew);
  for (size_t i = 0; i < edges_.size(); ++i) {
    if (marks[i] == kNew) walk(i, marks);
  }
}

/// A search in depth that does not recurse: a chain may be long.
void RequiredGraph::walk(size_t start, std::vector<int>& marks) {
  struct Visit {
    size_t node;
    size_t next;  // of its edges
  };
  std::vector<Visit> visits{{start, 0}};
  std::vector<Step> path;  // the edges between the visited nodes
  marks[start] = kOnPath;
  while (!visits.empty()) {
    Visit& visit = visits.back();
    if (visit.next == edges_[visit.node].size()) {
      marks[visit.node] = kDone;
      order_.push_back(visit.node);
      visits.pop_back();
      if (!path.empty()) path.pop_back();
      continue;
    }
    const Step step{visit.node, edges_[visit.node][visit.next++]};
    if (marks[step.edge.to] == kOnPath) {
      addCycle(path, step);
    } else if (marks[step.edge.to] == kNew) {
      marks[step.edge.to] = kOnPath;
      path.push_back(step);
      visits.push_back({step.edge.to, 0});
    }
  }
}

void RequiredGraph::addCycle(const std::vector<Step>& path, const Step& back) {
  const auto begin =
      std::find_if(path.begin(), path.end(),
                   [&](const Step& step) { return step.from == back.edge.to; });
  std::vector<Step> cycle(begin, path.end());
  cycle.push_back(back);
  const bool is_new = std::any_of(
      cycle.begin(), cycle.end(),
      [this](const Step& step) { return !is_in_cycle_[step.from]; });
  if (!is_new) return;
  for (const Step& step : cycle) is_in_cycle_[step.from] = true;
  cycles_.push_back(std::move(cycle));
}

bool RequiredGraph::reachesCycle(
    size_t node, const std::vector<std::optional<Cascade>>& others) const {
  if (is_in_cycle_[node]) return true;
  return std::any_of(edges_[node].begin(), edges_[node].end(),
                     [&](const Edge& edge) { return !others[edge.to]; });
}

/// What the stop of `node` brings with it if of all others those above the
/// index `running_above` run, or all.
RequiredGraph::Cascade RequiredGraph::cascadeOf(
    size_t node, size_t running_above, milliseconds per_stop,
    const std::vector<std::optional<Cascade>>& others) const {
  Cascade sum{1, per_stop};
  for (const Edge& edge : edges_[node]) {
    if (running_above != kAll && edge.to <= running_above) continue;
    const NodeReading& other = reading_.nodes[edge.to];
    sum.stops += others[edge.to]->stops;
    sum.duration += others[edge.to]->duration + kPause;
    if (!other.oneshot.value) {
      sum.duration += milliseconds(effectiveSleepMs(other.sleepMs.value));
    }
    sum.stops = std::min(sum.stops, kMostStops);
    sum.duration = std::min(sum.duration, kLongest);
  }
  return sum;
}

std::vector<std::optional<RequiredGraph::Cascade>> RequiredGraph::cascades()
    const {
  std::vector<std::optional<Cascade>> cascades(edges_.size());
  for (const size_t node : order_) {
    if (reachesCycle(node, cascades)) continue;
    cascades[node] = cascadeOf(node, kAll, kStop, cascades);
  }
  return cascades;
}

std::optional<milliseconds> RequiredGraph::stopOfAll(
    milliseconds per_stop) const {
  if (!cycles_.empty()) return std::nullopt;
  milliseconds sum{0};
  std::vector<std::optional<Cascade>> cascades(edges_.size());
  for (size_t i = 0; i < edges_.size(); ++i) {
    if (edges_[i].empty()) {
      sum += per_stop;
      continue;
    }
    // Nodes that were stopped before are not restarted.
    for (const size_t node : order_) {
      cascades[node] = cascadeOf(node, i, per_stop, cascades);
    }
    sum = std::min(sum + cascades[i]->duration, kLongest);
  }
  return sum;
}

}  // namespace vorn::launch
