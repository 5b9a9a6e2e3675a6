#pragma once

#include <memory>
#include <string>
#include <vector>

#include "node.h"
#include "vornlib/time.h"

namespace vorn::launch {

/// The registry of all nodes, in launch-file order. It owns them and never
/// removes one, so pointers from findNode() are good for the life of the
/// process. Filled by the parser, then fixed. Main thread only.
class NodeManager {
 public:
  /// The single instance, created empty on the first call, never destroyed.
  static NodeManager& getInstance();

  NodeManager(const NodeManager&) = delete;
  NodeManager& operator=(const NodeManager&) = delete;

  /// Appends `node`, also when there is one of that name already. `name` is
  /// for the log line.
  void addNode(const std::string& name, std::unique_ptr<Node> node);

  /// The first node whose child has this pid; nullptr when none has. 0 finds
  /// the first node without a child.
  Node* findNode(int pid);

  /// The first node of exactly this name; nullptr when there is none.
  Node* findNode(const std::string& name);

  /// Every node, in the order of the launch file.
  const std::vector<std::unique_ptr<Node>>& nodes() const { return nodes_; }

  /// Starts every node that is not disabled, in order, ignoring failures. A
  /// disabled one is passed over and keeps its state.
  void startingUp();

  /// Starts, after the nodes they require, the RESTARTING nodes whose last
  /// start is five whole seconds or longer ago. True when at least one other
  /// is still waiting for that; call again within a second then.
  bool pollingRestart();

 private:
  NodeManager() = default;

  std::vector<std::unique_ptr<Node>> nodes_;
};

}  // namespace vorn::launch
