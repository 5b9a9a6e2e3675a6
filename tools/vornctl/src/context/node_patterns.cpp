#include "context/node_patterns.h"

#include <fnmatch.h>

#include <algorithm>
#include <set>

#include "output/edit_distance.h"

namespace vorn::launch {
namespace {

/// Adds the nodes that match this pattern to `selected`; false if none does.
bool addMatches(const LaunchFile& file, const std::string& pattern,
                std::set<std::string>& selected) {
  bool is_matched = false;
  for (const LaunchFile::Node& node : file.nodes) {
    const std::string& name = node.name.value;
    if (::fnmatch(pattern.c_str(), name.c_str(), 0) != 0) continue;
    selected.insert(name);
    is_matched = true;
  }
  return is_matched;
}

}  // namespace

bool isPattern(const std::string& argument) {
  return argument.find_first_of("*?[") != std::string::npos;
}

std::vector<std::string> selectNodes(const LaunchFile& file,
                                     const std::vector<std::string>& arguments,
                                     std::string& error) {
  std::set<std::string> selected;
  std::vector<std::string> unknown;
  for (const std::string& argument : arguments) {
    if (file.find(argument) != nullptr) {
      selected.insert(argument);
    } else if (isPattern(argument)) {
      if (addMatches(file, argument, selected)) continue;
      error = "no node matches '" + argument +
              "'; quote patterns so that the shell does not expand them";
      return {};
    } else if (std::find(unknown.begin(), unknown.end(), argument) ==
               unknown.end()) {
      unknown.push_back(argument);
    }
  }
  std::vector<std::string> names;
  for (const LaunchFile::Node& node : file.nodes) {
    const std::string& name = node.name.value;
    if (arguments.empty() || selected.count(name) > 0) names.push_back(name);
  }
  names.insert(names.end(), unknown.begin(), unknown.end());
  return names;
}

std::string nearestName(const LaunchFile& file, const std::string& name) {
  std::vector<std::string> names;
  for (const LaunchFile::Node& node : file.nodes)
    names.push_back(node.name.value);
  return nearestOf(names, name);
}

}  // namespace vorn::launch
