#include "context/node_patterns.h"

#include <fnmatch.h>

#include <algorithm>
#include <set>

#include "output/edit_distance.h"

namespace vorn::launch {
bool isPattern(const std::string& argument) {
  return argument.find_first_of("*?[") != std::string::npos;
}

std::vector<std::string> selectNodes(const LaunchFile& file,
                                     const std::vector<std::string>& arguments,
                                     std::string& error) {
  std::set<std::string> wanted;
  std::vector<std::string> unknown;
  for (const std::string& argument : arguments) {
    if (file.find(argument) != nullptr) {
      wanted.insert(argument);
      continue;
    }
    if (!isPattern(argument)) {
      if (std::find(unknown.begin(), unknown.end(), argument) ==
          unknown.end()) {
        unknown.push_back(argument);
      }
      continue;
    }
    bool is_matched = false;
    for (const LaunchFile::Node& node : file.nodes) {
      if (::fnmatch(argument.c_str(), node.name.value.c_str(), 0) != 0)
        continue;
      wanted.insert(node.name.value);
      is_matched = true;
    }
    if (!is_matched) {
      error = "no node matches '" + argument +
              "'; quote patterns so that the shell does not expand them";
      return {};
    }
  }
  std::vector<std::string> selected;
  for (const LaunchFile::Node& node : file.nodes) {
    if (arguments.empty() || wanted.count(node.name.value) > 0) {
      selected.push_back(node.name.value);
    }
  }
  selected.insert(selected.end(), unknown.begin(), unknown.end());
  return selected;
}

std::string nearestName(const LaunchFile& file, const std::string& name) {
  std::vector<std::string> names;
  for (const LaunchFile::Node& node : file.nodes)
    names.push_back(node.name.value);
  return nearestOf(names, name);
}

}  // namespace vorn::launch
