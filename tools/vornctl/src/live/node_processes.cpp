#include "live/node_processes.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include "live/proc_file.h"

namespace vorn::launch {
namespace {

/// The pids of these processes and of all their descendants.
std::set<pid_t> pidsBelow(const ProcessTable& table,
                          const std::vector<const Process*>& roots) {
  std::set<pid_t> pids;
  for (const Process* const root : roots) {
    for (const auto& entry : table.treeOf(*root)) pids.insert(entry.first->pid);
  }
  return pids;
}

/// Whether a process of this node that was running when `start` began is a
/// child of a launcher in our pid namespace.
bool isRunSince(const ProcessTable& table,
                const std::vector<const Process*>& launchers,
                const NodeMembers& members, const std::string& node,
                uint64_t start) {
  for (const Process* const launcher : launchers) {
    for (const Process* const child : table.childrenOf(launcher->pid)) {
      const auto member = members.find(child->pid);
      if (member != members.end() && member->second.node == node &&
          member->second.sharesPidNamespace && child->isAlive() &&
          child->startTicks <= start) {
        return true;
      }
    }
  }
  return false;
}

/// The oldest ancestor that belongs to a node, or the process itself. Null if a
/// launcher that is not visible may have started it.
const Process* rootOf(const ProcessTable& table, const NodeMembers& members,
                      const Process& process) {
  const Process* root = &process;
  const Process* last = &process;
  for (const Process* const ancestor : table.ancestorsOf(process)) {
    if (members.count(ancestor->pid) > 0) root = ancestor;
    last = ancestor;
  }
  // /proc hides the parent, or the process entered our pid namespace.
  return last->parent != 0 || root->parent == 0 ? nullptr : root;
}

}  // namespace

std::vector<const Process*> launchersIn(const ProcessTable& table,
                                        pid_t known) {
  constexpr char kName[] = "vornlaunch";
  std::vector<const Process*> launchers;
  for (const Process& process : table.all()) {
    if (process.isAlive() && (process.name == kName || process.pid == known)) {
      launchers.push_back(&process);
    }
  }
  return launchers;
}

NodeMembers readNodeMembers(const ProcessTable& table,
                            const std::vector<const Process*>& launchers,
                            std::vector<const Process*>& unreadable) {
  const std::set<pid_t> descendants = pidsBelow(table, launchers);
  // A launcher's children are in its own namespace.
  std::map<pid_t, bool> shares_pid_namespace;
  for (const Process* const each : launchers) {
    shares_pid_namespace[each->pid] = isInOurPidNamespace(each->pid);
  }
  NodeMembers members;
  for (const Process& process : table.all()) {
    const auto parent = shares_pid_namespace.find(process.parent);
    const bool is_child = parent != shares_pid_namespace.end();
    const bool is_candidate = is_child || descendants.count(process.pid) == 0;
    if (!is_candidate || process.isKernelThread || !process.isAlive()) continue;
    errno = 0;
    const auto environment = readProcFile(procFile(process.pid, "environ"));
    if (!environment) {
      if (errno == EACCES || errno == EPERM) unreadable.push_back(&process);
      continue;
    }
    if (auto node = nodeNameIn(*environment)) {
      members[process.pid] = {
          std::move(*node),
          is_child ? parent->second : isInOurPidNamespace(process.pid)};
    }
  }
  return members;
}

std::vector<DetachedTree> detachedTrees(
    const ProcessTable& table, const std::vector<const Process*>& launchers,
    const NodeMembers& members, pid_t self) {
  std::set<pid_t> excluded = pidsBelow(table, launchers);
  std::set<pid_t> spared = {self};
  for (const Process* const launcher : launchers) spared.insert(launcher->pid);
  std::vector<DetachedTree> trees;
  for (const auto& [pid, member] : members) {
    if (excluded.count(pid) > 0 || !member.sharesPidNamespace) continue;
    const Process* const root = rootOf(table, members, *table.find(pid));
    if (root == nullptr || !members.at(root->pid).sharesPidNamespace) continue;
    const std::set<pid_t> tree = pidsBelow(table, {root});
    excluded.insert(tree.begin(), tree.end());
    const bool is_spared =
        std::any_of(spared.begin(), spared.end(),
                    [&](pid_t each) { return tree.count(each) > 0; });
    if (is_spared) continue;
    DetachedTree detached{root, members.at(root->pid).node};
    using Origin = DetachedTree::Origin;
    if (!isRunSince(table, launchers, members, detached.node,
                    root->startTicks)) {
      const bool has_older_launcher = std::any_of(
          launchers.begin(), launchers.end(), [&](const Process* launcher) {
            return launcher->startTicks <= root->startTicks;
          });
      detached.origin =
          has_older_launcher ? Origin::EARLIER_RUN : Origin::NO_LAUNCHER;
    }
    trees.push_back(std::move(detached));
  }
  std::sort(trees.begin(), trees.end(), [](const auto& a, const auto& b) {
    return a.root->pid < b.root->pid;
  });
  return trees;
}

std::map<std::string, std::vector<NodeProcess>> processesOfNodes(
    const ProcessTable& table, pid_t launcher, size_t& unreadable) {
  std::map<std::string, std::vector<NodeProcess>> nodes;
  const auto add = [&](const std::string& node, const Process& root) {
    for (const auto& [process, depth] : table.treeOf(root)) {
      nodes[node].push_back({process, depth});
    }
  };
  const auto launchers = launchersIn(table, launcher);
  std::vector<const Process*> unexamined;
  const NodeMembers members = readNodeMembers(table, launchers, unexamined);
  unreadable = static_cast<size_t>(std::count_if(
      unexamined.begin(), unexamined.end(),
      [&](const Process* process) { return process->parent == launcher; }));
  for (const Process* const child : table.childrenOf(launcher)) {
    const auto member = members.find(child->pid);
    if (member != members.end()) add(member->second.node, *child);
  }
  for (const DetachedTree& tree :
       detachedTrees(table, launchers, members, ::getpid())) {
    const bool is_current = tree.origin == DetachedTree::Origin::CURRENT_RUN;
    if (is_current && nodes.count(tree.node) > 0) add(tree.node, *tree.root);
  }
  return nodes;
}

}  // namespace vorn::launch
