#include "launchfile/launch_file.h"

#include <algorithm>
#include <utility>

#include "output/text.h"
#include "vorn/launch_rules.h"

namespace vorn::launch {

void LaunchFile::Nodes::add(Node node) {
  index_.emplace(node.name.value, nodes_.size());
  nodes_.push_back(std::move(node));
}

std::optional<size_t> LaunchFile::Nodes::indexOf(
    const std::string& node_name) const {
  const auto found = index_.find(node_name);
  return found == index_.end() ? std::nullopt : std::optional(found->second);
}

void LaunchFile::Nodes::removeRepeated() {
  Nodes first;
  for (Node& node : nodes_) {
    if (!first.indexOf(node.name.value)) first.add(std::move(node));
  }
  *this = std::move(first);
}

const LaunchFile::Node* LaunchFile::find(const std::string& node_name) const {
  const auto index = nodes.indexOf(node_name);
  return index ? &nodes[*index] : nullptr;
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
