#include "launchfile/launch_file.h"

#include <algorithm>
#include <unordered_set>
#include <utility>

#include "output/text.h"
#include "vorn/launch_rules.h"

namespace vorn::launch {

const LaunchFile::Node* LaunchFile::find(const std::string& node_name) const {
  const auto node = std::find_if(
      nodes.begin(), nodes.end(),
      [&](const Node& each) { return each.name.value == node_name; });
  return node == nodes.end() ? nullptr : &*node;
}

void LaunchFile::removeRepeatedNodes() {
  std::unordered_set<std::string> names;
  std::vector<Node> first;
  for (Node& node : nodes) {
    const bool is_new = names.insert(node.name.value).second;
    if (is_new) first.push_back(std::move(node));
  }
  nodes = std::move(first);
}

std::string nodeNameValue(const std::string& name) {
  return name + kNodeNameSuffix;
}

const std::vector<std::string>& nodeKeys() {
  static const std::vector<std::string> keys = {
      "path",  "argv",      "disabled", "oneshot",
      "sleep", "autostart", "required", "environment"};
  return keys;
}

bool isNodeKey(const std::string& name) {
  const auto& keys = nodeKeys();
  return std::find(keys.begin(), keys.end(), name) != keys.end();
}

std::string exportedName(const std::string& name) {
  std::string exported = untilNul(name);
  return exported.find('=') == std::string::npos ? exported : "";
}

}  // namespace vorn::launch
