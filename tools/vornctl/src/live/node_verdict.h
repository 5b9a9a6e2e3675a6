#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "live/action_records.h"
#include "live/node_history.h"
#include "live/node_status.h"

namespace vorn::launch {

/// What is known about a node.
struct NodeFacts {
  NodeView view;
  int64_t nowUs = 0;
  bool hasLauncher = true;
  // From the launch file; nothing if it cannot be read.
  std::optional<bool> isDisabledInFile;
  bool isOneshot = false;
  std::optional<NodeHistory> history;  // nothing if the log does not have it
  std::string logError;                // the reason if the log cannot be read
  std::optional<ActionRecord> action;  // the last one with the node
  bool isMemoryKill = false;           // the kernel log names the last exit
  int64_t memoryKills = 0;  // that the control group of the launcher counts
  std::vector<std::string> fullFileSystems;  // paths on them
  std::vector<pid_t> orphans;  // its processes without a launcher, or of an
                               // earlier run
  std::string coreHandler;     // of the kernel: /proc/sys/kernel/core_pattern
  std::vector<std::string> lastLines;  // before the last exit
  bool areLinesItsOwn = false;         // otherwise of any node
};

/// The explanation of a node's state.
struct NodeVerdict {
  bool isAsWanted = true;
  std::string summary;  // a clause whose subject is the node
  std::vector<std::pair<std::string, std::string>> details;  // label, text
  std::vector<std::string> remedies;  // sentences; empty if none is needed
};

NodeVerdict judge(const NodeFacts& facts);

}  // namespace vorn::launch
