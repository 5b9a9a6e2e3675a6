#include "launchfile/launch_file.h"

#include <algorithm>
#include <unordered_set>

namespace vorn::launch {
namespace {

LaunchNode nodeFrom(const NodeReading& reading) {
  LaunchNode node;
  node.name = reading.name.value;
  node.executable = reading.executable;
  node.disabled = reading.disabled.value;
  node.oneshot = reading.oneshot.value;
  node.autostart = reading.autostart.value;
  node.sleepMs = reading.sleepMs.value;
  for (const Text& name : reading.required) {
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
    const Document& document, const LauncherSurroundings& surroundings,
    std::string& error) {
  const std::string& path = document.name();
  Reading reading;
  try {
    reading = readAsLauncher(document, surroundings);
  } catch (const TooLarge& failure) {
    error = "cannot read the launch file " + path + ": " + failure.what();
    return std::nullopt;
  }
  if (!reading.faults.empty()) {
    error = "the launch file " + path +
            " is wrong: " + reading.faults.front().exception;
    return std::nullopt;
  }
  LaunchFile file;
  std::unordered_set<std::string> names;
  for (const NodeReading& node : reading.nodes) {
    if (names.insert(node.name.value).second) {
      file.nodes.push_back(nodeFrom(node));
    }
  }
  return file;
}

}  // namespace vorn::launch
