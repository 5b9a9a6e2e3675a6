#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "live/health.h"
#include "live/launcher_process.h"
#include "live/process_table.h"

namespace vorn::launch {

/// The launchers in the pid namespace of `launcher`; in ours if it is 0.
/// Sorted by pid. Does not contain processes of a node that have not yet
/// executed their program.
std::vector<pid_t> launchersNextTo(pid_t launcher,
                                   const ProcessTable& processes);

/// `answering` is the launcher that listens on the socket; 0: unknown.
Finding launchersFinding(const std::vector<pid_t>& launchers, pid_t answering);

/// What a launcher does.
struct ActivityFacts {
  pid_t pid = 0;
  char state = 'S';       // the letter of ps
  double cpuPercent = 0;  // of one processor
  // In no sample it slept. On a busy machine, it can be waiting for a
  // processor.
  bool isAlwaysRunning = false;
  bool isFirstProcess = false;  // process 1 of its pid namespace
  bool hasAnswered = false;     // a status request
};

/// The facts about a launcher, except hasAnswered. Measures for 0.3 s.
std::optional<ActivityFacts> measureActivity(pid_t pid);

Finding activityFinding(const ActivityFacts& facts);

/// The programs with which a stop checks whether a node has exited.
struct ToolFacts {
  std::string path;                  // the launcher's PATH
  std::vector<std::string> missing;  // "ps", "grep", "/bin/sh"
  bool isBusyboxPs = false;
};

/// Nothing if the environment or the root directory cannot be examined.
std::optional<ToolFacts> examineTools(const LauncherProcess& launcher);

Finding toolsFinding(const ToolFacts& facts);

/// The pids that a stop could confuse, as the launcher sees them.
struct PidFacts {
  bool isFirstProcess = false;         // the launcher, in its pid namespace
  std::map<pid_t, std::string> nodes;  // or "a child" if its node is unknown
  std::vector<pid_t> zombies;          // except those of nodes
};

/// Nothing without the permission to examine the launcher's children.
std::optional<PidFacts> examinePids(const LauncherProcess& launcher,
                                    const ProcessTable& processes);

Finding pidsFinding(const PidFacts& facts);

/// `error` is the reason why the file cannot be read; empty if it can.
/// `may_read` is whether the lack of a permission cannot be the reason.
Finding launchFileFinding(const LauncherProcess& launcher,
                          const std::string& error, bool may_read);

}  // namespace vorn::launch
