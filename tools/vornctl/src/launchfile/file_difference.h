#pragma once

#include <optional>
#include <string>
#include <vector>

#include "launchfile/launch_file.h"

// The differences between two launch files, as the launcher uses them.

namespace vorn::launch {

/// A part of a node or of `configure` that differs.
struct PartDifference {
  std::string
      part;  // "argv", "environment NAME", "required", "order" and so on
  std::optional<std::string> before;  // nothing: it does not exist
  std::optional<std::string> after;
};

/// A node that differs.
struct NodeDifference {
  enum class Kind { ADDED, REMOVED, CHANGED };

  std::string node;
  Kind kind = Kind::CHANGED;
  std::vector<PartDifference> parts;  // of CHANGED
  std::string effect;  // of a restart of the launcher: "starts", "stops"
};

struct FileDifference {
  std::vector<PartDifference> configure;
  // In the order of the new file, removed ones last.
  std::vector<NodeDifference> nodes;
  size_t unchanged = 0;

  bool isEmpty() const { return configure.empty() && nodes.empty(); }
};

/// Both files have no load errors and no repeated nodes.
FileDifference differenceBetween(const LaunchFile& before,
                                 const LaunchFile& after);

/// Words as a shell reads them; for users.
std::string wordsText(const std::vector<std::string>& words);

}  // namespace vorn::launch
