#pragma once

#include <string>
#include <vector>

#include "launchfile/launch_file.h"

namespace vorn::launch {

/// Whether this argument is a pattern of node names: it contains *, ? or [.
bool isPattern(const std::string& argument);

/// The nodes that the arguments select, each once, in file order; all nodes
/// without arguments. The name of a node selects that node even if it contains
/// characters of a pattern. Unknown names are added at the end: the launcher
/// may know them. Empty with a sentence in `error` if a pattern matches
/// nothing.
std::vector<std::string> selectNodes(const LaunchFile& file,
                                     const std::vector<std::string>& arguments,
                                     std::string& error);

/// The name in the file that is nearest to `name`, if it is near enough for a
/// typing error; otherwise empty.
std::string nearestName(const LaunchFile& file, const std::string& name);

}  // namespace vorn::launch
