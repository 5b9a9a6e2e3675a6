#pragma once

#include <memory>
#include <vector>

#include "config.h"
#include "node_manager.h"

namespace vorn::fuzz {

/// Empties the objects that live as long as the process, so that an input does
/// not affect the next one and memory does not grow. The registry returns its
/// list as const so that callers do not change it; the list itself is not
/// const.
inline void forgetEverything() {
  using Nodes = std::vector<std::unique_ptr<launch::Node>>;
  const_cast<Nodes&>(launch::NodeManager::getInstance().nodes()).clear();
  launch::Config::getInstance().environment.clear();
}

}  // namespace vorn::fuzz
