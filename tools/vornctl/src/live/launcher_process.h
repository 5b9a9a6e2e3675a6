#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "launchfile/launch_file.h"

// What /proc tells of a running launcher. Everything here reads, and may fail
// for want of permission: a launcher of another user shows its arguments only.

namespace vorn::launch {

/// A launcher and the nodes in its launch file.
struct LauncherProcess {
  pid_t pid = 0;             // 0: out of our sight
  int64_t startSeconds = 0;  // since the epoch; 0 if unknown
  // Absolute, as the launcher sees it; its argument as it is if the working
  // directory of the launcher is unknown. Empty if unknown.
  std::string launchFile;
  LaunchFile file;
  bool hasChanged = false;  // the file is younger than the launcher
  // The launcher's root folder as we reach it: empty when it is our own,
  // nothing when it may be another, into which we cannot look.
  std::optional<std::string> root;
};

/// Returns everything about the launcher `pid` except its nodes. `launch_file`,
/// if not empty, replaces its own launch file.
LauncherProcess identifyLauncher(pid_t pid, const std::string& launch_file);

/// As identifyLauncher(), and reads the nodes from the launch file. Nothing if
/// they cannot be known; `error` is then a sentence that says why and how to
/// name another file.
std::optional<LauncherProcess> inspectLauncher(pid_t pid,
                                               const std::string& launch_file,
                                               std::string& error);

/// Whether the executable of `node` is there, as the launcher sees it. Nothing
/// if that cannot be known.
std::optional<bool> executableExists(const LauncherProcess& launcher,
                                     const LaunchFile::Node& node);

/// The launcher's children, zombies included, in no particular order. Nothing
/// if they cannot be known.
std::optional<std::vector<pid_t>> childrenOf(pid_t launcher);

/// The name of the node that the process was started for, by its environment.
/// Nothing if it has not executed its program yet, is no node's, or may not be
/// asked.
std::optional<std::string> nodeOf(pid_t process);

/// Whether the pids that the launcher tells are ours as well: it is in our pid
/// namespace.
bool sharesPids(const LauncherProcess& launcher);

/// Whether a process of this pid exists and is no zombie. True when the pids of
/// the launcher mean nothing to us, being of another pid namespace.
bool isProcessAlive(const LauncherProcess& launcher, pid_t pid);

}  // namespace vorn::launch
