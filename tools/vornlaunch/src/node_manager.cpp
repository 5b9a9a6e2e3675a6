#include "node_manager.h"

#include <mutex>
#include <new>
#include <utility>

#include "vorn/launch_rules.h"
#include "vornlib/time.h"
#include "vornlib/trace.h"

namespace vorn::launch {
NodeManager& NodeManager::getInstance() {
  static NodeManager* instance = nullptr;
  static std::once_flag once;
  if (instance == nullptr) {
    std::call_once(once, [] { instance = new (std::nothrow) NodeManager(); });
  }
  return *instance;
}

void NodeManager::addNode(const std::string& name, std::unique_ptr<Node> node) {
  // KEEP: a second node of the same name is kept; searches find the first.
  // Test: NodeManagerTest.ANameFindsTheFirstNodeThatHasIt
  VTRACE(kInfo, kPlain, "name: %s", name.c_str());
  nodes_.push_back(std::move(node));
}

Node* NodeManager::findNode(int pid) {
  for (const auto& node : nodes_) {
    if (node->pid == pid) return node.get();
  }
  return nullptr;
}

Node* NodeManager::findNode(const std::string& name) {
  for (const auto& node : nodes_) {
    if (node->name == name) return node.get();
  }
  return nullptr;
}

void NodeManager::startingUp() {
  for (const auto& node : nodes_) {
    // KEEP: a disabled node remains STOPPED until the first attempt to start
    // it. Test: NodeManagerTest.ADisabledNodeIsSkippedSilently
    if (!node->disabled) (void)node->start();
  }
}

bool NodeManager::pollingRestart() {
  bool pending = false;
  for (const auto& node : nodes_) {
    if (node->state != NodeState::RESTARTING) continue;
    // From the last start, not from the exit: a node that ran long enough is
    // restarted at once, and one that exits at once is not restarted in a loop.
    if (node->getStartInterval() < kRestartInterval.count()) {
      pending = true;
      continue;
    }
    node->restartRequired();
    (void)node->start();  // after a failure it is not RESTARTING
  }
  return pending;
}

}  // namespace vorn::launch
