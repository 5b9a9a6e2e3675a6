#pragma once

#include <string>

#include "run_settings.h"

namespace vorn::run {

/// The name of the node: that of the launcher's variable, otherwise the last
/// component of the program's path, otherwise "?".
std::string nodeName(const RunSettings& settings);

}  // namespace vorn::run
