#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "launchfile/parser.h"

namespace vorn::launch {

/// A node as its launch file describes it.
struct LaunchNode {
  std::string name;
  std::string executable;  // as the launcher runs it; may be relative to the
                           // launcher's working folder
  bool disabled = false;
  bool oneshot = false;
  bool autostart = true;
  uint32_t sleepMs = 0;  // before each start
  std::vector<std::string> required;
};

/// The nodes of one launch file that can be controlled, in file order: of
/// several with one name the first alone is within reach.
struct LaunchFile {
  std::vector<LaunchNode> nodes;

  /// The node of this name; null if there is none. Borrowed.
  const LaunchNode* find(const std::string& name) const;
};

/// Parses a launch file as a launcher in these surroundings does. Nothing if
/// the launcher would not load it; `error` is then one sentence with the
/// reason.
std::optional<LaunchFile> launchFileFrom(
    const SourceText& document, const LauncherSurroundings& surroundings,
    std::string& error);

}  // namespace vorn::launch
