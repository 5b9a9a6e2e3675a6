#pragma once

#include <string>
#include <vector>

#include "import/imported.h"

namespace vorn::launch {

/// The settings of an imported node that have no counterpart.
inline std::vector<std::string> omittedSettings(const ImportedNode& node) {
  std::vector<std::string> settings;
  for (const Omitted& each : node.omitted) settings.push_back(each.setting);
  return settings;
}

}  // namespace vorn::launch
