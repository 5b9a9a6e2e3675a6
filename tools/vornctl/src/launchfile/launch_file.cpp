#include "launchfile/launch_file.h"

#include <algorithm>
#include <unordered_set>

namespace vorn::launch {
namespace {

LaunchNode nodeFrom(const ParsedNode& parsed) {
  LaunchNode node;
  node.name = parsed.name.value;
  node.executable = parsed.executable;
  node.disabled = parsed.disabled.value;
  node.oneshot = parsed.oneshot.value;
  node.autostart = parsed.autostart.value;
  node.sleepMs = parsed.sleepMs.value;
  for (const Text& name : parsed.required) {
    node.required.push_back(name.value);
  }
  return node;
}

}  // namespace

const LaunchNode* LaunchFile::find(const std::string& name) const {
  const auto node =
      std::find_if(nodes.begin(), nodes.end(),
                   [&](const LaunchNode& each) { return each.name == name; });
  return node == nodes.end() ? nullptr : &*node;
}

std::optional<LaunchFile> launchFileFrom(
    const SourceText& document, const LauncherSurroundings& surroundings,
    std::string& error) {
  const std::string& path = document.name();
  ParsedLaunchFile parsed;
  try {
    parsed = readAsLauncher(document, surroundings);
  } catch (const TooLarge& failure) {
    error = "cannot read the launch file " + path + ": " + failure.what();
    return std::nullopt;
  }
  if (!parsed.loadErrors.empty()) {
    error = "the launch file " + path +
            " is wrong: " + parsed.loadErrors.front().exception;
    return std::nullopt;
  }
  LaunchFile file;
  std::unordered_set<std::string> names;
  for (const ParsedNode& node : parsed.nodes) {
    if (names.insert(node.name.value).second) {
      file.nodes.push_back(nodeFrom(node));
    }
  }
  return file;
}

}  // namespace vorn::launch
