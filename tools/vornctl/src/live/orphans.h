#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "live/node_processes.h"

namespace vorn::launch {

/// A process that carries the name of a node, or descends from such a process,
/// and that no launcher supervises.
struct Orphan {
  Process process;
  std::string node;
  bool isOfEarlierRun = false;  // otherwise its launcher has exited
  size_t depth = 0;             // generations since its oldest ancestor in here
};

struct Orphans {
  std::vector<Orphan> processes;  // each after its parent
  size_t unreadable = 0;  // processes of other users that were not examined
};

/// The orphans in our pid namespace. `known` is a launcher that may not have
/// the usual name; 0: none.
Orphans findOrphans(const ProcessTable& table, pid_t known);

/// "launcher exited" or "earlier run".
const char* reasonFor(const Orphan& orphan);

/// A sentence for users with the number of orphans and how to list them; empty
/// if there are none.
std::string warningAbout(const Orphans& orphans);

}  // namespace vorn::launch
