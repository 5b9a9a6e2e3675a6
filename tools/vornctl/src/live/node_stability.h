#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "live/node_status.h"

namespace vorn::launch {

/// A node, and what the launch file wants of it.
struct WantedNode {
  NodeView view;  // with its history, if the log can be read
  bool isOneshot = false;
  bool isAutostart = true;
  bool isDisabledInFile = false;
  std::chrono::milliseconds age{0};  // of its process
  size_t restartsSeen = 0;           // since the examination began
};

struct NodeStability {
  enum class Verdict {
    STABLE,   // as the launch file or an operator wants it
    PENDING,  // can become stable without a command
    FAILED,
  };
  Verdict verdict = Verdict::STABLE;
  std::string reason;  // a clause whose subject is the node, unless STABLE
};

/// Whether a node has run without a restart for `run_for`, or has succeeded if
/// it is a oneshot. A node that an operator has stopped or disabled is stable.
/// With 0, a node must run now, and must not be in a crash loop.
NodeStability judgeStability(const WantedNode& node,
                             std::chrono::milliseconds run_for);

}  // namespace vorn::launch
