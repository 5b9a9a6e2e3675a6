#pragma once

#include <string>

namespace vorn::run {

/// Creates the directory (0755) if it is missing. Returns the reason of a
/// failure, otherwise an empty text.
std::string createStateDirectory(const std::string& directory);

/// Replaces the file `path` (0644) by rename(2), so that readers see the old or
/// the new text. Returns the reason of a failure, otherwise an empty text.
std::string writeStateFile(const std::string& path, const std::string& text);

}  // namespace vorn::run
