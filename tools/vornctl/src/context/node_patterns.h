#pragma once

#include <string>
#include <vector>

#include "launchfile/launch_file.h"

namespace vorn::launch {

/// Whether this argument is a pattern of node names: it has *, ? or [.
bool isPattern(const std::string& argument);

/// The nodes that the arguments mean, each once, in file order; all if there
/// are no arguments. An argument that names a node is that node, even if it
/// looks like a pattern. A name that the file does not have stays, at the end,
/// for the launcher to judge. Empty with a sentence in `error` if a pattern
/// matches nothing.
std::vector<std::string> selectNodes(const LaunchFile& file,
                                     const std::vector<std::string>& arguments,
                                     std::string& error);

/// The name in the file that is nearest to `name`, if one is near enough to
/// have been meant; else empty.
std::string nearestName(const LaunchFile& file, const std::string& name);

}  // namespace vorn::launch
