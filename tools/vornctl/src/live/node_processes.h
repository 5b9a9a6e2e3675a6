#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "live/process_table.h"

// Which processes belong to which node. A node's process is a child of its
// launcher; its own children belong to the node as well. The environment of all
// of them contains the name of the node, which shows to which node a process
// belongs that is not a descendant of the launcher any more.

namespace vorn::launch {

/// The node of a process, from its environment.
struct NodeMember {
  std::string node;
  bool sharesPidNamespace = true;  // with this process
};

using NodeMembers = std::map<pid_t, NodeMember>;

/// The living launchers, sorted by pid: the processes of this name, and
/// `known` (0: none), which may have another one.
std::vector<const Process*> launchersIn(const ProcessTable& table, pid_t known);

/// The nodes of the children of `launchers`, and of all processes that do not
/// descend from them. Reads the environment of each of these processes; adds
/// those for which the permission is missing to `unreadable`.
NodeMembers readNodeMembers(const ProcessTable& table,
                            const std::vector<const Process*>& launchers,
                            std::vector<const Process*>& unreadable);

/// The process from which a tree of processes begins that belongs to a node but
/// does not descend from a living launcher.
struct DetachedTree {
  enum class Origin {
    CURRENT_RUN,  // the node has put it into the background
    EARLIER_RUN,  // as above, but the node has been started again or stopped
    NO_LAUNCHER,  // all living launchers are younger
  };
  const Process* root = nullptr;
  std::string node;
  Origin origin = Origin::CURRENT_RUN;
};

/// The detached trees, sorted by the pids of their roots. Excludes processes in
/// other pid namespaces, processes that may descend from a launcher that is
/// not visible, and trees with a launcher or with the process `self`.
std::vector<DetachedTree> detachedTrees(
    const ProcessTable& table, const std::vector<const Process*>& launchers,
    const NodeMembers& members, pid_t self);

/// A process of a node, and the number of generations since the first one.
struct NodeProcess {
  const Process* process = nullptr;
  size_t depth = 0;
};

/// The processes of each node of the launcher `launcher`, each after its
/// parent; processes in the background follow the others. `unreadable` is the
/// number of children of the launcher that belong to a node which cannot be
/// read without permission.
std::map<std::string, std::vector<NodeProcess>> processesOfNodes(
    const ProcessTable& table, pid_t launcher, size_t& unreadable);

}  // namespace vorn::launch
