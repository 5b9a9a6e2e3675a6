#include "context/node_patterns.h"

#include <fnmatch.h>

#include <algorithm>
#include <numeric>
#include <set>

namespace vorn::launch {
namespace {

/// The number of letters to insert, remove or change to make `a` of `b`.
size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i + 1;
    for (size_t j = 0; j < b.size(); ++j) {
      const size_t changed = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

bool isPattern(const std::string& argument) {
  return argument.find_first_of("*?[") != std::string::npos;
}

std::vector<std::string> selectNodes(const LaunchFile& file,
                                     const std::vector<std::string>& arguments,
                                     std::string& error) {
  std::set<std::string> wanted;
  std::vector<std::string> strangers;
  for (const std::string& argument : arguments) {
    if (file.find(argument) != nullptr) {
      wanted.insert(argument);
      continue;
    }
    if (!isPattern(argument)) {
      if (std::find(strangers.begin(), strangers.end(), argument) ==
          strangers.end()) {
        strangers.push_back(argument);
      }
      continue;
    }
    bool is_matched = false;
    for (const LaunchNode& node : file.nodes) {
      if (::fnmatch(argument.c_str(), node.name.c_str(), 0) != 0) continue;
      wanted.insert(node.name);
      is_matched = true;
    }
    if (!is_matched) {
      error = "no node matches '" + argument +
              "'; quote patterns, so that the shell leaves them alone";
      return {};
    }
  }
  std::vector<std::string> selected;
  for (const LaunchNode& node : file.nodes) {
    if (arguments.empty() || wanted.count(node.name) > 0) {
      selected.push_back(node.name);
    }
  }
  selected.insert(selected.end(), strangers.begin(), strangers.end());
  return selected;
}

std::string nearestOf(const std::vector<std::string>& words,
                      const std::string& word) {
  // A third of the letters wrong is a typing error, more is another word. Words
  // of one or two letters resemble too many others.
  size_t best = word.size() / 3 + 1;
  std::string nearest;
  for (const std::string& each : words) {
    const size_t longer = std::max(each.size(), word.size());
    if (longer - std::min(each.size(), word.size()) >= best) continue;
    const size_t distance = editDistance(word, each);
    if (distance < best) {
      best = distance;
      nearest = each;
    }
  }
  return nearest;
}

std::string nearestName(const LaunchFile& file, const std::string& name) {
  std::vector<std::string> names;
  for (const LaunchNode& node : file.nodes) names.push_back(node.name);
  return nearestOf(names, name);
}

}  // namespace vorn::launch
