#pragma once

#include <sys/stat.h>

#include <chrono>
#include <optional>
#include <unordered_map>
#include <vector>

#include "live/launcher_process.h"
#include "live/node_status.h"
#include "live/process_table.h"

namespace vorn::launch {

/// Adds the processor time and memory of each node that has a process. They are
/// the sums over its process and the descendants of that; nothing is added
/// without the permission to see which processes these are.
void addUsage(const ProcessTable& table, const LauncherProcess& launcher,
              std::vector<NodeView>& views);

/// As addUsage(), with the share of the processor since the previous call, and
/// for a process that is younger than that since its start.
class UsageSampler {
 public:
  void add(const ProcessTable& table, const LauncherProcess& launcher,
           std::vector<NodeView>& views);

 private:
  struct Sample {
    uint64_t startTicks = 0;
    uint64_t cpuTicks = 0;
  };

  std::unordered_map<pid_t, Sample> previous_;
  std::optional<std::chrono::steady_clock::time_point> time_;
};

/// Adds whether the program of each node that has a process was replaced or
/// removed after the start; nothing where the permission is missing.
void addStaleness(const ProcessTable& table, const LauncherProcess& launcher,
                  std::vector<NodeView>& views);

/// Whether a program was replaced or removed after `start`, in seconds since
/// the epoch. `executed` is the file that the process executes, and `named` the
/// present one at the path in the launch file, null if there is none. They
/// differ without a replacement for a script, which its interpreter executes,
/// and after the process has executed another program.
bool isReplaced(const struct stat& executed, const struct stat* named,
                double start);

}  // namespace vorn::launch
