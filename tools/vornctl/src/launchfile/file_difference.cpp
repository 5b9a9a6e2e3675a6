#include "launchfile/file_difference.h"

#include <algorithm>
#include <map>
#include <utility>

namespace vorn::launch {
namespace {

using Parts = std::vector<PartDifference>;

void addIfDifferent(Parts& parts, const std::string& part,
                    const std::string& before, const std::string& after) {
  if (before != after) parts.push_back({part, before, after});
}

const char* boolText(bool value) { return value ? "true" : "false"; }

std::vector<std::string> argvOf(const LaunchFile::Node& node) {
  std::vector<std::string> argv = {node.executable};
  for (const Text& argument : node.arguments) argv.push_back(argument.value);
  return argv;
}

/// The last variable of a name is the one that the node gets.
std::map<std::string, std::string> valuesByName(
    const std::vector<Variable>& variables) {
  std::map<std::string, std::string> values;
  for (const Variable& variable : variables) {
    values[variable.name.value] = variable.value.value;
  }
  return values;
}

void addVariables(Parts& parts, const std::vector<Variable>& before,
                  const std::vector<Variable>& after) {
  auto old_values = valuesByName(before);
  for (const auto& [name, value] : valuesByName(after)) {
    const auto old_value = old_values.find(name);
    if (old_value == old_values.end()) {
      parts.push_back({"environment " + name, std::nullopt, value});
      continue;
    }
    addIfDifferent(parts, "environment " + name, old_value->second, value);
    old_values.erase(old_value);
  }
  for (const auto& [name, value] : old_values) {
    parts.push_back({"environment " + name, value, std::nullopt});
  }
}

Parts partsBetween(const LaunchFile::Node& before,
                   const LaunchFile::Node& after) {
  Parts parts;
  addIfDifferent(parts, "argv", wordsText(argvOf(before)),
                 wordsText(argvOf(after)));
  addVariables(parts, before.environment, after.environment);
  addIfDifferent(parts, "disabled", boolText(before.disabled.value),
                 boolText(after.disabled.value));
  addIfDifferent(parts, "oneshot", boolText(before.oneshot.value),
                 boolText(after.oneshot.value));
  addIfDifferent(parts, "autostart", boolText(before.autostart.value),
                 boolText(after.autostart.value));
  addIfDifferent(parts, "sleep", std::to_string(before.sleepMs.value),
                 std::to_string(after.sleepMs.value));
  addIfDifferent(parts, "required", wordsText(valuesOf(before.required)),
                 wordsText(valuesOf(after.required)));
  return parts;
}

/// What a restart of the launcher does to a node of the new file.
std::string effectOn(const LaunchFile::Node& after, bool is_new) {
  if (after.disabled.value) return is_new ? "is disabled" : "stops: disabled";
  if (!after.autostart.value) {
    return is_new ? "is not started: autostart is false"
                  : "stops: autostart is false";
  }
  if (after.oneshot.value) return is_new ? "runs once" : "runs again";
  return is_new ? "starts" : "restarts";
}

/// The positions in `order`, whose numbers differ, of a longest sequence that
/// increases: the smallest number of the others has moved.
std::vector<bool> inOrder(const std::vector<size_t>& order) {
  std::vector<size_t> length(order.size(), 1);
  std::vector<size_t> previous(order.size(), order.size());
  size_t last = 0;
  for (size_t i = 0; i < order.size(); ++i) {
    for (size_t j = 0; j < i; ++j) {
      if (order[j] < order[i] && length[j] + 1 > length[i]) {
        length[i] = length[j] + 1;
        previous[i] = j;
      }
    }
    if (length[i] > length[last]) last = i;
  }
  std::vector<bool> kept(order.size());
  for (size_t i = last; i < order.size(); i = previous[i]) kept[i] = true;
  return kept;
}

std::string positionText(const LaunchFile::Nodes& nodes, size_t index) {
  return index == 0 ? "first" : "after " + nodes[index - 1].name.value;
}

/// The nodes of both files that have moved, with their old and new positions.
std::map<std::string, PartDifference> movedNodes(const LaunchFile& before,
                                                 const LaunchFile& after) {
  std::vector<size_t> new_indices;
  std::vector<size_t> order;
  for (size_t i = 0; i < after.nodes.size(); ++i) {
    const auto old_index = before.nodes.indexOf(after.nodes[i].name.value);
    if (!old_index) continue;
    new_indices.push_back(i);
    order.push_back(*old_index);
  }
  const std::vector<bool> kept = inOrder(order);
  std::map<std::string, PartDifference> moved;
  for (size_t i = 0; i < order.size(); ++i) {
    if (kept[i]) continue;
    moved[after.nodes[new_indices[i]].name.value] = {
        "order", positionText(before.nodes, order[i]),
        positionText(after.nodes, new_indices[i])};
  }
  return moved;
}

}  // namespace

FileDifference differenceBetween(const LaunchFile& before,
                                 const LaunchFile& after) {
  using Kind = NodeDifference::Kind;
  FileDifference difference;
  addVariables(difference.configure, before.environment, after.environment);
  const auto moved = movedNodes(before, after);
  for (const LaunchFile::Node& node : after.nodes) {
    const std::string& name = node.name.value;
    const LaunchFile::Node* const old_node = before.find(name);
    if (old_node == nullptr) {
      difference.nodes.push_back({name, Kind::ADDED, {}, effectOn(node, true)});
      continue;
    }
    Parts parts = partsBetween(*old_node, node);
    const auto found = moved.find(name);
    if (found != moved.end()) parts.push_back(found->second);
    if (parts.empty()) {
      ++difference.unchanged;
    } else {
      difference.nodes.push_back(
          {name, Kind::CHANGED, std::move(parts), effectOn(node, false)});
    }
  }
  for (const LaunchFile::Node& node : before.nodes) {
    if (after.find(node.name.value) != nullptr) continue;
    difference.nodes.push_back({node.name.value, Kind::REMOVED, {}, "stops"});
  }
  return difference;
}

std::string wordsText(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    if (!text.empty()) text += ' ';
    const bool is_plain =
        !word.empty() && word.find_first_of(" \t\n'\"\\") == std::string::npos;
    if (is_plain) {
      text += word;
      continue;
    }
    text += '\'';
    for (const char letter : word) {
      if (letter == '\'') {
        text += "'\\''";
      } else {
        text += letter;
      }
    }
    text += '\'';
  }
  return text;
}

}  // namespace vorn::launch
