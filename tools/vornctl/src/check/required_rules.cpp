#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "check/rules.h"
#include "launchfile/required_graph.h"
#include "output/edit_distance.h"

namespace vorn::launch {
namespace {

constexpr std::chrono::seconds kLongStop{60};
constexpr int64_t kManyStops = 20;

using NodeIndex = std::unordered_map<std::string, const LaunchFile::Node*>;

void checkName(const LaunchFile::Node& node, const Text& name,
               const NodeIndex& index, const std::vector<std::string>& names,
               Diagnostics& diagnostics) {
  const std::string requirer = "'" + node.name.value + "' requires ";
  if (name.value == node.name.value) {
    diagnostics.add("required-self", name.location,
                    requirer + "itself, which is ignored");
    return;
  }
  const auto other = index.find(name.value);
  if (other == index.end()) {
    // The search for a similar name takes long if there are many names.
    std::string near;
    if (!diagnostics.isFull("required-unknown"))
      near = nearestOf(names, name.value);
    if (near == node.name.value) near.clear();  // required-self would follow
    diagnostics.add("required-unknown", name.location,
                    requirer + "'" + name.value +
                        "', which is not a node; it is ignored" +
                        (near.empty() ? "" : "; did you mean '" + near + "'?"));
    return;
  }
  if (other->second->oneshot.value) {
    diagnostics.add(
        "required-oneshot", name.location,
        requirer + "'" + name.value + "', a oneshot: if it runs when '" +
            node.name.value + "' stops, it is stopped and disabled",
        {{other->second->oneshot.location, "it is a oneshot here"}});
  }
}

void checkNames(const LaunchFile& file, Diagnostics& diagnostics) {
  NodeIndex index;
  std::vector<std::string> names;
  for (const LaunchFile::Node& node : file.nodes) {
    index.emplace(node.name.value, &node);
    names.push_back(node.name.value);
  }
  for (const LaunchFile::Node& node : file.nodes) {
    std::unordered_map<std::string, SourceLocation> before;
    for (const Text& name : node.required) {
      checkName(node, name, index, names, diagnostics);
      const auto [first, is_new] = before.emplace(name.value, name.location);
      if (is_new) continue;
      diagnostics.add("required-twice", name.location,
                      "'" + node.name.value + "' requires '" + name.value +
                          "' twice, which restarts it twice",
                      {{first->second, "the first time is here"}});
    }
  }
}

void checkCycles(const LaunchFile& file, const RequiredGraph& graph,
                 Diagnostics& diagnostics) {
  const auto name_of = [&](size_t node) { return file.nodes[node].name.value; };
  for (const auto& cycle : graph.cycles()) {
    std::string chain = name_of(cycle.front().from);
    std::vector<Note> notes;
    for (const auto& [from, edge] : cycle) {
      chain += " -> " + name_of(edge.to);
      notes.push_back({edge.location, "'" + name_of(from) + "' requires '" +
                                          name_of(edge.to) + "' here"});
    }
    const SourceLocation location = notes.front().location;
    notes.erase(notes.begin());
    diagnostics.add("required-cycle", location,
                    "cycle of 'required': " + chain +
                        "; stopping any of them blocks the launcher forever",
                    std::move(notes));
  }
}

void checkCascades(const LaunchFile& file, const RequiredGraph& graph,
                   Diagnostics& diagnostics) {
  const auto& cascades = graph.cascades();
  const auto is_long = [&](size_t node) {
    return !cascades[node].isEndless && (cascades[node].duration > kLongStop ||
                                         cascades[node].stops > kManyStops);
  };
  // The diagnostic of a node covers the nodes that it requires.
  std::set<size_t> covered;
  for (size_t i = 0; i < cascades.size(); ++i) {
    if (!is_long(i)) continue;
    for (const auto& edge : graph.edgesFrom(i)) covered.insert(edge.to);
  }
  for (size_t i = 0; i < cascades.size(); ++i) {
    if (!is_long(i) || covered.count(i) > 0) continue;
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(cascades[i].duration);
    diagnostics.add("long-stop", file.nodes[i].required.front().location,
                    "stopping '" + file.nodes[i].name.value + "' can take " +
                        std::to_string(cascades[i].stops) + " stops and " +
                        std::to_string(seconds.count()) +
                        " s, including the nodes that it requires directly or "
                        "indirectly; meanwhile the launcher does nothing else");
  }
}

}  // namespace

void checkRequired(const LaunchFile& file, Diagnostics& diagnostics) {
  checkNames(file, diagnostics);
  const RequiredGraph graph(file);
  checkCycles(file, graph, diagnostics);
  checkCascades(file, graph, diagnostics);
}

}  // namespace vorn::launch
