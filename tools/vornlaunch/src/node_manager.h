#pragma once

#include <memory>
#include <string>
#include <vector>

#include "node.h"
#include "vornlib/time.h"

namespace vorn::launch {

/// The registry of all nodes, in launch-file order. It owns them and never
/// removes one, so pointers from findNode() are valid for the life of the
/// process. The parser fills it, then it does not change. Main thread only.
class NodeManager {
 public:
  /// The single instance, created empty on the first call, never destroyed.
  static NodeManager& getInstance();

  NodeManager(const NodeManager&) = delete;
  NodeManager& operator=(const NodeManager&) = delete;

  /// Appends `node`, even if a node of that name exists. `name` is for the log
  /// line.
  void addNode(const std::string& name, std::unique_ptr<Node> node);

  /// The first node whose child has this pid; nullptr if there is none. 0 finds
  /// the first node without a child.
  Node* findNode(int pid);

  /// The first node of exactly this name; nullptr if there is none.
  Node* findNode(const std::string& name);

  /// Every node, in the order of the launch file.
  const std::vector<std::unique_ptr<Node>>& nodes() const { return nodes_; }

  /// Starts every node that is not disabled, in order, ignoring failures. A
  /// disabled node is skipped and keeps its state.
  void startingUp();

  /// Starts the RESTARTING nodes whose last start was at least five whole
  /// seconds ago, after the nodes that they require. True if another one still
  /// waits; then call it again within a second.
  bool pollingRestart();

 private:
  NodeManager() = default;

  std::vector<std::unique_ptr<Node>> nodes_;
};

}  // namespace vorn::launch
