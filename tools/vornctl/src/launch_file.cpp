#include "launch_file.h"

#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

namespace vorn::launch {
namespace {

constexpr char kBinPath[] = "VORN_BIN_PATH";
constexpr char kInstallPrefix[] = "install:/";  // a second slash follows

std::string expandInstallRoot(std::string value, const std::string& root) {
  const std::string prefix = kInstallPrefix;
  for (size_t found = value.find(prefix + '/'); found != std::string::npos;
       found = value.find(prefix + '/', found + root.size())) {
    value.replace(found, prefix.size(), root);
  }
  return value;
}

/// VORN_BIN_PATH as the launcher has it when it reads the nodes.
std::string binPath(const YAML::Node& root,
                    const LauncherSurroundings& surroundings) {
  std::string value = surroundings.binPath;
  const YAML::Node configure = root["configure"];
  if (!configure) return value;
  const YAML::Node environment = configure["environment"];
  if (!environment) return value;
  for (const auto& entry : environment) {
    if (entry.first.as<std::string>() == kBinPath) {
      value = expandInstallRoot(entry.second.as<std::string>(),
                                surroundings.installRoot);
    }
  }
  return value;
}

LaunchNode readNode(const std::string& name, const YAML::Node& description,
                    const std::string& bin_path) {
  LaunchNode node;
  node.name = name;
  const auto path = description["path"].as<std::string>();
  const bool is_joined = !bin_path.empty() && path.rfind('/', 0) != 0;
  node.executable = is_joined ? bin_path + '/' + path : path;
  for (const auto& entry : description) {
    const auto key = entry.first.as<std::string>();
    if (key == "disabled") node.disabled = entry.second.as<bool>();
    if (key == "oneshot") node.oneshot = entry.second.as<bool>();
    if (key == "autostart") node.autostart = entry.second.as<bool>();
    if (key == "sleep") node.sleepMs = entry.second.as<unsigned int>();
    if (key == "required") {
      node.required = entry.second.as<std::vector<std::string>>();
    }
  }
  return node;
}

LaunchFile readNodes(const YAML::Node& root, const std::string& bin_path) {
  LaunchFile file;
  const YAML::Node nodes = root["vornnode"];
  if (!nodes) return file;
  for (const auto& entry : nodes) {
    const auto name = entry.first.as<std::string>();
    // The launcher drops a node without a path.
    if (!entry.second["path"] || file.find(name) != nullptr) continue;
    file.nodes.push_back(readNode(name, entry.second, bin_path));
  }
  return file;
}

}  // namespace

const LaunchNode* LaunchFile::find(const std::string& name) const {
  const auto node =
      std::find_if(nodes.begin(), nodes.end(),
                   [&](const LaunchNode& each) { return each.name == name; });
  return node == nodes.end() ? nullptr : &*node;
}

std::optional<LaunchFile> readLaunchFile(
    const std::string& path, const LauncherSurroundings& surroundings,
    std::string& error) {
  std::error_code ignored;
  try {
    // yaml-cpp throws something else at a folder, and leaks.
    if (std::filesystem::is_directory(path, ignored)) throw YAML::BadFile(path);
    const YAML::Node root = YAML::LoadFile(path);
    return readNodes(root, binPath(root, surroundings));
  } catch (const YAML::BadFile&) {
    error = "cannot read the launch file " + path;
  } catch (const YAML::Exception& failure) {
    error = "the launch file " + path + " is wrong: " + failure.what();
  }
  return std::nullopt;
}

}  // namespace vorn::launch
