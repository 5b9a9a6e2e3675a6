#include "launchfile/required_graph.h"

#include <algorithm>
#include <utility>

#include "vorn/launch_rules.h"

namespace vorn::launch {
namespace {

using Cmd = ControlRequest::Cmd;
using std::chrono::milliseconds;

constexpr uint32_t kMicrosecondsPerMillisecond = 1000;
constexpr milliseconds kLongestCascade = std::chrono::hours(24 * 365);
constexpr milliseconds kLongestRequest = std::chrono::hours(24);
constexpr milliseconds kRequestGrace = std::chrono::seconds(30);
// A stop runs `ps` a hundred times between its pauses.
constexpr milliseconds kLongestStopWithChecks =
    kLongestStop + std::chrono::seconds(1);
constexpr int64_t kMostStops = 1'000'000'000;
constexpr size_t kNone = static_cast<size_t>(-1);
constexpr size_t kMostCycleSteps = 1'000'000;

milliseconds sleepOf(const LaunchFile::Node& node) {
  return milliseconds(effectiveSleepMs(node.sleepMs.value));
}

/// The time of the restart of a required node apart from its stop. A oneshot is
/// not started again.
milliseconds restartOf(const LaunchFile::Node& node) {
  return kStopPause + (node.oneshot.value ? milliseconds(0) : sleepOf(node));
}

}  // namespace

uint32_t effectiveSleepMs(uint32_t sleep_ms) {
  return sleep_ms * kMicrosecondsPerMillisecond / kMicrosecondsPerMillisecond;
}

RequiredGraph::RequiredGraph(const LaunchFile& file)
    : file_(file),
      edges_(file.nodes.size()),
      is_in_cycle_(file.nodes.size()),
      rank_(file.nodes.size()),
      cascades_(file.nodes.size()) {
  for (size_t i = 0; i < file.nodes.size(); ++i) {
    const LaunchFile::Node& node = file.nodes[i];
    for (const Text& name : node.required) {
      const auto index = file.nodes.indexOf(name.value);
      if (!index || name.value == node.name.value) continue;
      edges_[i].push_back({*index, name.location});
    }
  }
  Search search{std::vector<size_t>(edges_.size(), kNone), {}, {}, {}};
  std::vector<bool> is_seen(edges_.size());
  for (size_t i = 0; i < edges_.size(); ++i) {
    if (!is_seen[i]) walk(i, search, is_seen);
  }
  for (size_t i = 0; i < order_.size(); ++i) rank_[order_[i]] = i;
  for (const size_t node : order_) {
    Cascade cascade = cascadeOf(edges_[node], kNone, kLongestStop, cascades_);
    cascade.isEndless = cascade.isEndless || is_in_cycle_[node];
    cascades_[node] = cascade;
  }
}

/// A depth-first search without recursion, since a chain can be long.
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

/// The stops that the stop of a node with these edges causes, and their
/// duration. If `running_above` is kNone, all other nodes run. Otherwise only
/// those with a higher index run, and the edges must be in descending order. A
/// node without a cascade in `others` closes a cycle, and its stop causes no
/// others.
RequiredGraph::Cascade RequiredGraph::cascadeOf(
    const std::vector<Edge>& edges, size_t running_above, milliseconds per_stop,
    const std::vector<Cascade>& others) const {
  Cascade sum{1, per_stop};
  for (const Edge& edge : edges) {
    if (running_above != kNone && edge.to <= running_above) break;
    const Cascade& known = others[edge.to];
    const Cascade other = known.stops > 0 ? known : Cascade{1, per_stop};
    sum.stops = std::min(sum.stops + other.stops, kMostStops);
    sum.duration = std::min(
        sum.duration + other.duration + restartOf(file_.nodes[edge.to]),
        kLongestCascade);
    sum.isEndless = sum.isEndless || other.isEndless;
  }
  return sum;
}

/// The node and the nodes with a higher index that it requires, directly or
/// not, required nodes before those that require them. `edges` are in
/// descending order; `reached_from` has the last node from which each node was
/// reached.
std::vector<size_t> RequiredGraph::runningFrom(
    size_t node, const std::vector<std::vector<Edge>>& edges,
    std::vector<size_t>& reached_from) const {
  std::vector<size_t> nodes{node};
  for (size_t next = 0; next < nodes.size(); ++next) {
    for (const Edge& edge : edges[nodes[next]]) {
      if (edge.to <= node) break;
      if (std::exchange(reached_from[edge.to], node) == node) continue;
      nodes.push_back(edge.to);
    }
  }
  std::sort(nodes.begin(), nodes.end(),
            [&](size_t a, size_t b) { return rank_[a] < rank_[b]; });
  return nodes;
}

/// Sums the cascades of all nodes in turn. Each takes as many steps as it has
/// stops, and the year at which the sum ends has less than three million.
std::optional<milliseconds> RequiredGraph::stopOfAll() const {
  if (!cycles_.empty()) return std::nullopt;
  auto edges = edges_;
  for (auto& each : edges) {
    std::sort(each.begin(), each.end(),
              [](const Edge& a, const Edge& b) { return a.to > b.to; });
  }
  milliseconds sum{0};
  std::vector<Cascade> cascades(edges.size());
  std::vector<size_t> reached_from(edges.size(), kNone);
  for (size_t i = 0; i < edges.size() && sum < kLongestCascade; ++i) {
    // Nodes that were stopped before are not restarted.
    for (const size_t node : runningFrom(i, edges, reached_from)) {
      cascades[node] =
          cascadeOf(edges[node], i, kLongestStopWithChecks, cascades);
    }
    sum = std::min(sum + cascades[i].duration, kLongestCascade);
  }
  return sum;
}

milliseconds RequiredGraph::longestDuration(Cmd cmd,
                                            const std::string& name) const {
  const auto index = file_.nodes.indexOf(name);
  const milliseconds stop = index ? cascades_[*index].duration : kLongestStop;
  const milliseconds sleep =
      index ? sleepOf(file_.nodes[*index]) : milliseconds(0);
  switch (cmd) {
    case Cmd::STOP:
    case Cmd::DISABLE:
      return std::min(stop, kLongestRequest);
    case Cmd::RESTART:
      return std::min(stop + kStopPause + sleep, kLongestRequest);
    case Cmd::START:
      return sleep;
    case Cmd::STATUS:
    case Cmd::ENABLE:
      break;
  }
  return milliseconds(0);
}

milliseconds RequiredGraph::replyLimit(Cmd cmd, const std::string& name) const {
  return 2 * longestDuration(cmd, name) + kRequestGrace;
}

}  // namespace vorn::launch
