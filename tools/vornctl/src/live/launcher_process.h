#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "launchfile/launch_file.h"
#include "launchfile/parser.h"

// The facts that /proc shows of a running launcher. Everything here only reads,
// and can fail without permission: of a launcher of another user only the
// arguments are visible.

namespace vorn::launch {

/// A launcher and the nodes in its launch file.
struct LauncherProcess {
  pid_t pid = 0;             // 0: not visible to this process
  bool sharesPids = false;   // with us: the pids in its replies are valid here
  int64_t startSeconds = 0;  // since the epoch; 0 if unknown
  // Absolute, as the launcher sees it; its unchanged argument if the working
  // directory of the launcher is unknown. Empty if unknown.
  std::string launchFile;
  LaunchFile file;
  bool hasChanged =
      false;  // the file was changed after the start of the launcher
  // The path prefix of the launcher's root directory: empty if it is ours,
  // nothing if it may be another one that we cannot access.
  std::optional<std::string> root;
};

/// Returns everything about the launcher `pid` except its nodes. `launch_file`,
/// if not empty, replaces its own launch file.
LauncherProcess identifyLauncher(pid_t pid, const std::string& launch_file);

/// As identifyLauncher(), and reads the nodes from the launch file. Nothing if
/// they cannot be read; `error` is then a sentence with the reason and how to
/// name another file.
std::optional<LauncherProcess> inspectLauncher(pid_t pid,
                                               const std::string& launch_file,
                                               std::string& error);

/// The text of the launch file of `launcher`, which identifyLauncher() returned
/// for the same `launch_file`; sets `hasChanged`. Nothing if it cannot be read;
/// `error` is then a sentence with the reason and how to name another file.
std::optional<SourceText> readLaunchFile(LauncherProcess& launcher,
                                         const std::string& launch_file,
                                         std::string& error);

/// The environment in which the launcher `pid` reads its launch file; that of
/// this process for 0.
LauncherEnvironment launcherEnvironment(pid_t pid);

/// Whether the executable of `node` exists for the launcher. Nothing if
/// unknown.
std::optional<bool> executableExists(const LauncherProcess& launcher,
                                     const LaunchFile::Node& node);

/// The launcher's children, zombies included, in no particular order. Nothing
/// if unknown.
std::optional<std::vector<pid_t>> childrenOf(pid_t launcher);

/// The name of the node for which the process was started, from its
/// environment. Nothing if the process has not executed its program yet,
/// belongs to no node, or cannot be examined.
std::optional<std::string> nodeOf(pid_t process);

/// Whether a process with this pid exists and is not a zombie. True if the
/// launcher is in another pid namespace, where its pids mean other processes.
bool isProcessAlive(const LauncherProcess& launcher, pid_t pid);

}  // namespace vorn::launch
