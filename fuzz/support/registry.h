#pragma once

#include <memory>
#include <vector>

#include "config.h"
#include "node_manager.h"

namespace vorn::fuzz {

/// Empties what lives as long as the process, so that an input finds nothing
/// of the one before it and memory does not grow. The registry returns its
/// list as const so that callers do not change it; the list itself is not
/// const.
inline void forgetEverything() {
  using Nodes = std::vector<std::unique_ptr<launch::Node>>;
  const_cast<Nodes&>(launch::NodeManager::getInstance().nodes()).clear();
  launch::Config::getInstance().environment.clear();
}

}  // namespace vorn::fuzz
