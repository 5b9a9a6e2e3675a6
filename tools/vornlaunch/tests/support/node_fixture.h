#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "node.h"
#include "node_manager.h"
#include "support/log_capture.h"
#include "support/process_calls.h"

namespace vorn::launch {

inline std::string stateName(NodeState state) {
  switch (state) {
    case NodeState::STOPPED:
      return "STOPPED";
    case NodeState::RUNNING:
      return "RUNNING";
    case NodeState::RESTARTING:
      return "RESTARTING";
    case NodeState::DISABLED:
      return "DISABLED";
  }
  return "state" + std::to_string(static_cast<int32_t>(state));
}

inline std::ostream& operator<<(std::ostream& out, NodeState state) {
  return out << stateName(state);
}

}  // namespace vorn::launch

namespace vorn::test {

using launch::NodeState;

inline auto everyState() {
  return ::testing::Values(NodeState::STOPPED, NodeState::RUNNING,
                           NodeState::RESTARTING, NodeState::DISABLED);
}

inline auto everyStateButRunning() {
  return ::testing::Values(NodeState::STOPPED, NodeState::RESTARTING,
                           NodeState::DISABLED);
}

inline std::string stateParamName(
    const ::testing::TestParamInfo<NodeState>& info) {
  return launch::stateName(info.param);
}

/// Names a case after its parameter's `name`.
struct CaseName {
  template <typename Info>
  std::string operator()(const Info& info) const {
    return info.param.name;
  }
};

/// The log's lines that carry the operator's mark.
inline std::vector<LogLine> events(const LogCapture& log) {
  std::vector<LogLine> events;
  for (const LogLine& line : log.lines()) {
    if (line.event) events.push_back(line);
  }
  return events;
}

/// Puts `node` into `state` as its life would: one that is RUNNING has a child,
/// one that is DISABLED keeps its `disabled` flag as it is.
inline void setState(launch::Node& node, NodeState state, pid_t pid) {
  node.state = state;
  node.pid = state == NodeState::RUNNING ? pid : 0;
}

/// Adds a node to the registry, the executable being /bin/NAME.
// `name` is a view, because GCC 14 assumes that a function with a reference
// parameter returns a reference to the argument.
inline launch::Node& addNode(std::string_view name,
                             NodeState state = NodeState::STOPPED,
                             pid_t pid = 0) {
  const std::string text(name);
  auto node = std::make_unique<launch::Node>(text);
  node->argv = {"/bin/" + text};
  setState(*node, state, pid);
  launch::Node& added = *node;
  launch::NodeManager::getInstance().addNode(text, std::move(node));
  return added;
}

/// A node "worker" with the child 4242 in a world of faked processes.
class FakedNodeTest : public ::testing::Test {
 protected:
  static constexpr pid_t kPid = 4242;

  FakedNodeTest() { node_.argv = {"/bin/worker"}; }

  void setState(NodeState state) { test::setState(node_, state, kPid); }

  const LogCapture log_;
  ProcessCalls processes_;
  launch::Node node_{"worker"};
};

/// The same with a state as parameter, in which the node begins.
class FakedNodeInStateTest : public FakedNodeTest,
                             public ::testing::WithParamInterface<NodeState> {
 protected:
  FakedNodeInStateTest() { setState(GetParam()); }
};

}  // namespace vorn::test
