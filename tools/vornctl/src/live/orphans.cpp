#include "live/orphans.h"

#include <unistd.h>

namespace vorn::launch {

Orphans findOrphans(const ProcessTable& table, pid_t known) {
  const auto launchers = launchersIn(table, known);
  std::vector<const Process*> unexamined;
  const NodeMembers members = readNodeMembers(table, launchers, unexamined);
  Orphans orphans;
  orphans.unreadable = unexamined.size();
  using Origin = DetachedTree::Origin;
  for (const DetachedTree& tree :
       detachedTrees(table, launchers, members, ::getpid())) {
    if (tree.origin == Origin::CURRENT_RUN) continue;
    for (const auto& [process, depth] : table.treeOf(*tree.root)) {
      if (!process->isAlive()) continue;
      orphans.processes.push_back(
          {*process, tree.node, tree.origin == Origin::EARLIER_RUN, depth});
    }
  }
  return orphans;
}

const char* reasonFor(const Orphan& orphan) {
  return orphan.isOfEarlierRun ? "earlier run" : "launcher exited";
}

std::string warningAbout(const Orphans& orphans) {
  const size_t count = orphans.processes.size();
  if (count == 0) return "";
  const std::string subject =
      count == 1 ? "1 process of an earlier launcher or run of a node is"
                 : std::to_string(count) +
                       " processes of earlier launchers or runs of nodes are";
  return subject + " still running; 'vornctl orphans' lists them";
}

}  // namespace vorn::launch
