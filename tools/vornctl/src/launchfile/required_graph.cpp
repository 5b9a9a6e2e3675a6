#include "launchfile/required_graph.h"

#include <algorithm>
#include <string>
#include <unordered_map>
#include <utility>

#include "vorn/launch_rules.h"

namespace vorn::launch {
namespace {

using std::chrono::milliseconds;

constexpr uint32_t kMicrosecondsPerMillisecond = 1000;
constexpr milliseconds kLongest = std::chrono::hours(24 * 365);
constexpr int64_t kMostStops = 1'000'000'000;
constexpr size_t kNone = static_cast<size_t>(-1);
constexpr size_t kMostCycleSteps = 1'000'000;

}  // namespace

uint32_t effectiveSleepMs(uint32_t sleep_ms) {
  return sleep_ms * kMicrosecondsPerMillisecond / kMicrosecondsPerMillisecond;
}

RequiredGraph::RequiredGraph(const LaunchFile& file)
    : file_(file), edges_(file.nodes.size()), is_in_cycle_(file.nodes.size()) {
  std::unordered_map<std::string, size_t> index;
  for (size_t i = 0; i < file.nodes.size(); ++i) {
    index.emplace(file.nodes[i].name.value, i);
  }
  for (size_t i = 0; i < file.nodes.size(); ++i) {
    const LaunchFile::Node& node = file.nodes[i];
    for (const Text& name : node.required) {
      const auto found = index.find(name.value);
      if (found == index.end() || name.value == node.name.value) continue;
      edges_[i].push_back({found->second, name.place});
    }
  }
  Search search{std::vector<size_t>(edges_.size(), kNone), {}, {}, {}};
  std::vector<bool> is_seen(edges_.size());
  for (size_t i = 0; i < edges_.size(); ++i) {
    if (!is_seen[i]) walk(i, search, is_seen);
  }
}

/// A search in depth that does not recurse: a chain may be long.
void RequiredGraph::walk(size_t start, Search& search,
                         std::vector<bool>& is_seen) {
  search.enter(start);
  is_seen[start] = true;
  while (!search.visits.empty()) {
    Visit& visit = search.visits.back();
    if (visit.next == edges_[visit.node].size()) {
      order_.push_back(visit.node);
      search.leave();
      continue;
    }
    const Step step{visit.node, edges_[visit.node][visit.next++]};
    if (search.position[step.edge.to] != kNone) {
      addCycle(search, step);
    } else if (!is_seen[step.edge.to]) {
      is_seen[step.edge.to] = true;
      search.path.push_back(step);
      search.enter(step.edge.to);
    }
  }
}

void RequiredGraph::Search::enter(size_t node) {
  position[node] = visits.size();
  outside.push_back(visits.size());
  visits.push_back({node, 0});
}

void RequiredGraph::Search::leave() {
  position[visits.back().node] = kNone;
  visits.pop_back();
  if (!outside.empty() && outside.back() == visits.size()) outside.pop_back();
  if (!path.empty()) path.pop_back();
}

void RequiredGraph::addCycle(Search& search, const Step& back) {
  const size_t begin = search.position[back.edge.to];
  std::vector<size_t>& outside = search.outside;
  if (outside.empty() || outside.back() < begin) return;
  for (; !outside.empty() && outside.back() >= begin; outside.pop_back()) {
    is_in_cycle_[search.visits[outside.back()].node] = true;
  }
  if (cycle_steps_ >= kMostCycleSteps) return;
  std::vector<Step> cycle(
      search.path.begin() + static_cast<std::ptrdiff_t>(begin),
      search.path.end());
  cycle.push_back(back);
  cycle_steps_ += cycle.size();
  cycles_.push_back(std::move(cycle));
}

bool RequiredGraph::reachesCycle(
    size_t node, const std::vector<std::optional<Cascade>>& others) const {
  if (is_in_cycle_[node]) return true;
  return std::any_of(edges_[node].begin(), edges_[node].end(),
                     [&](const Edge& edge) { return !others[edge.to]; });
}

/// The stops that the stop of a node with these edges causes, and their
/// duration. If `running_above` is kNone, all other nodes run. Otherwise only
/// those with a higher index run, and the edges must be in descending order.
RequiredGraph::Cascade RequiredGraph::cascadeOf(
    const std::vector<Edge>& edges, size_t running_above, milliseconds per_stop,
    const std::vector<std::optional<Cascade>>& others) const {
  Cascade sum{1, per_stop};
  for (const Edge& edge : edges) {
    if (running_above != kNone && edge.to <= running_above) break;
    const LaunchFile::Node& other = file_.nodes[edge.to];
    sum.stops += others[edge.to]->stops;
    sum.duration += others[edge.to]->duration + kStopPause;
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
    cascades[node] = cascadeOf(edges_[node], kNone, kLongestStop, cascades);
  }
  return cascades;
}

/// Sums the cascades of all nodes in turn. Each takes as many steps as it has
/// stops, and the year at which the sum ends has less than three million.
std::optional<milliseconds> RequiredGraph::stopOfAll(
    milliseconds per_stop) const {
  if (!cycles_.empty()) return std::nullopt;
  auto edges = edges_;
  for (auto& each : edges) {
    std::sort(each.begin(), each.end(),
              [](const Edge& a, const Edge& b) { return a.to > b.to; });
  }
  std::vector<size_t> rank(edges.size());
  for (size_t i = 0; i < order_.size(); ++i) rank[order_[i]] = i;
  milliseconds sum{0};
  std::vector<std::optional<Cascade>> cascades(edges.size());
  std::vector<size_t> reached_from(edges.size(), kNone);
  for (size_t i = 0; i < edges.size() && sum < kLongest; ++i) {
    // Nodes that were stopped before are not restarted.
    std::vector<size_t> nodes{i};
    for (size_t next = 0; next < nodes.size(); ++next) {
      for (const Edge& edge : edges[nodes[next]]) {
        if (edge.to <= i) break;
        if (std::exchange(reached_from[edge.to], i) == i) continue;
        nodes.push_back(edge.to);
      }
    }
    std::sort(nodes.begin(), nodes.end(),
              [&](size_t a, size_t b) { return rank[a] < rank[b]; });
    for (const size_t node : nodes) {
      cascades[node] = cascadeOf(edges[node], i, per_stop, cascades);
    }
    sum = std::min(sum + cascades[i]->duration, kLongest);
  }
  return sum;
}

}  // namespace vorn::launch
