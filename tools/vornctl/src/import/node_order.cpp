#include "import/node_order.h"

#include <utility>

namespace vorn::launch {
namespace {

/// A depth-first search: a node follows the nodes before it.
class NodeOrder {
 public:
  NodeOrder(const std::vector<ImportedNode>& nodes,
            const std::map<std::string, std::set<std::string>>& before)
      : nodes_(nodes), before_(before) {
    for (size_t i = 0; i < nodes_.size(); ++i) index_[nodes_[i].name] = i;
    is_seen_.resize(nodes_.size());
  }

  std::vector<ImportedNode> ordered() {
    for (size_t i = 0; i < nodes_.size(); ++i) visit(i);
    return std::move(ordered_);
  }

 private:
  void visit(size_t node) {
    if (is_seen_[node]) return;
    is_seen_[node] = true;
    if (const auto found = before_.find(nodes_[node].name);
        found != before_.end()) {
      for (const std::string& name : found->second) {
        if (const auto other = index_.find(name); other != index_.end()) {
          visit(other->second);
        }
      }
    }
    ordered_.push_back(nodes_[node]);
  }

  const std::vector<ImportedNode>& nodes_;
  const std::map<std::string, std::set<std::string>>& before_;
  std::map<std::string, size_t> index_;
  std::vector<bool> is_seen_;
  std::vector<ImportedNode> ordered_;
};

}  // namespace

void orderNodes(Imported& imported,
                const std::map<std::string, std::set<std::string>>& before) {
  imported.nodes = NodeOrder(imported.nodes, before).ordered();
}

}  // namespace vorn::launch
