#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// The processes of this machine, from /proc. A process can exit at any time:
// facts that are read later may be missing or, if the pid was reused, be those
// of another process, which has another start time.

namespace vorn::launch {

/// A process, from its stat file, which every user may read.
struct Process {
  pid_t pid = 0;
  pid_t parent = 0;  // 0: none, or in a pid namespace around ours
  char state = '?';  // the letter of ps, such as 'Z' for a zombie
  bool isKernelThread = false;
  std::string name;          // at most 15 bytes
  uint64_t startTicks = 0;   // since the boot of the machine
  uint64_t cpuTicks = 0;     // used by its threads, without its children
  uint64_t reapedTicks = 0;  // used by children that it has waited for
  int64_t residentBytes = 0;
  int64_t threads = 0;

  bool isAlive() const { return state != 'Z' && state != 'X'; }
};

/// The content of a stat file; nothing if it is not one.
std::optional<Process> parseProcess(const std::string& stat);

/// One process; nothing if it does not exist, or /proc hides it.
std::optional<Process> readProcess(pid_t pid);

/// Ticks, of which there are usually 100 per second, as seconds.
double secondsOf(uint64_t ticks);

/// The start of a process in seconds since the epoch; 0 if the clocks cannot be
/// read. It depends on the present time of the system clock.
double startOf(const Process& process);

/// The age of a process in seconds, which does not depend on the system clock.
double ageOf(const Process& process);

/// The share of one processor that `cpu_ticks` were of `seconds`, in percent.
double cpuPercent(uint64_t cpu_ticks, double seconds);

/// The arguments of a process; empty if it is a zombie or has exited.
std::vector<std::string> argumentsOf(pid_t pid);

/// The arguments with spaces between them; the name of the process in brackets
/// if it has none, as in ps.
std::string commandLineOf(const Process& process);

/// Whether the process is in the pid namespace of our /proc; a container has
/// its own. True if that cannot be read.
bool isInOurPidNamespace(pid_t pid);

/// The name of the node in an environment as /proc contains it; nothing if it
/// is not that of a node's process.
std::optional<std::string> nodeNameIn(const std::string& environment);

/// All processes at one time.
class ProcessTable {
 public:
  explicit ProcessTable(std::vector<Process> processes);

  /// Reads all stat files. Empty, with errno, if none can be read.
  static ProcessTable read();

  /// Sorted by pid.
  const std::vector<Process>& all() const { return processes_; }

  /// Null if there is none. Valid as long as the table.
  const Process* find(pid_t pid) const;

  /// The children of a process, sorted by pid.
  std::vector<const Process*> childrenOf(pid_t pid) const;

  /// The ancestors of a process from its parent to process 1, or to the first
  /// one that is not in the table.
  std::vector<const Process*> ancestorsOf(const Process& process) const;

  /// The process with all its descendants, each after its parent, with the
  /// number of generations between them.
  std::vector<std::pair<const Process*, size_t>> treeOf(
      const Process& root) const;

 private:
  std::vector<Process> processes_;
  std::vector<std::pair<pid_t, size_t>> children_;  // parent, index; sorted
};

}  // namespace vorn::launch
