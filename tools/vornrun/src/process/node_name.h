#pragma once

#include <string>

#include "run_settings.h"

namespace vorn::run {

/// The name of the node: that of the launcher's variable, otherwise the last
/// component of the program's path, otherwise "?".
std::string nodeName(const RunSettings& settings);

/// `name` as a file name: every byte outside of [A-Za-z0-9._-], and a dot at
/// the start, as %XX, so that no name leaves its directory.
std::string fileNameOf(const std::string& name);

}  // namespace vorn::run
