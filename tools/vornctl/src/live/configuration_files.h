#pragma once

#include <string>
#include <vector>

namespace vorn::launch {

/// The configuration files in these directories, of which an earlier one
/// replaces files of the same name in later ones: their paths, sorted by the
/// name of the file, if it has this ending.
std::vector<std::string> configurationFiles(
    const std::vector<std::string>& directories, const std::string& ending);

/// The text of a file; empty if it cannot be read.
std::string readConfiguration(const std::string& path);

}  // namespace vorn::launch
