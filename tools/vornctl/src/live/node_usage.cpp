#include "live/node_usage.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <string>

#include "descriptor.h"
#include "live/launcher_file.h"
#include "live/node_processes.h"
#include "live/proc_file.h"

namespace vorn::launch {
namespace {

/// The process of each node that has one.
std::map<std::string, const Process*> processOfEachNode(
    const ProcessTable& table, const LauncherProcess& launcher,
    const std::vector<NodeView>& views) {
  std::map<std::string, const Process*> processes;
  if (launcher.pid == 0) return processes;
  if (launcher.sharesPids) {
    for (const NodeView& view : views) {
      const Process* const process = table.find(view.pid);
      if (process != nullptr) processes[view.name] = process;
    }
    return processes;
  }
  // The pids in the replies are those of the launcher's own pid namespace.
  size_t unreadable = 0;
  for (const auto& [name, tree] :
       processesOfNodes(table, launcher.pid, unreadable)) {
    processes[name] = tree.front().process;
  }
  return processes;
}

/// Whether the program of a process was replaced; nothing if unknown.
std::optional<bool> isStale(const LauncherProcess& launcher,
                            const std::string& program,
                            const Process& process) {
  const std::string link = procFile(process.pid, "exe");
  struct stat executed {};
  if (program.empty() || !launcher.root ||
      ::stat(link.c_str(), &executed) != 0) {
    return std::nullopt;
  }
  const Descriptor file(
      openAsLauncher(launcher.pid, *launcher.root, program, O_PATH));
  struct stat named {};
  if (file.number() >= 0 && ::fstat(file.number(), &named) == 0) {
    return isReplaced(executed, &named, startOf(process));
  }
  if (errno != ENOENT && errno != ENOTDIR) return std::nullopt;
  return isReplaced(executed, nullptr, startOf(process));
}

}  // namespace

void addUsage(const ProcessTable& table, const LauncherProcess& launcher,
              std::vector<NodeView>& views) {
  const auto processes = processOfEachNode(table, launcher, views);
  for (NodeView& view : views) {
    const auto found = processes.find(view.name);
    if (found == processes.end()) continue;
    uint64_t ticks = 0;
    uint64_t reaped_ticks = 0;
    int64_t bytes = 0;
    for (const auto& [process, depth] : table.treeOf(*found->second)) {
      ticks += process->cpuTicks;
      reaped_ticks += process->reapedTicks;
      bytes += process->residentBytes;
    }
    view.cpuPercent = cpuPercent(ticks, ageOf(*found->second));
    // The sum does not decrease when a child exits.
    view.cpuSeconds = secondsOf(ticks + reaped_ticks);
    view.memoryBytes = bytes;
  }
}

void UsageSampler::add(const ProcessTable& table,
                       const LauncherProcess& launcher,
                       std::vector<NodeView>& views) {
  addUsage(table, launcher, views);
  const auto roots = processOfEachNode(table, launcher, views);
  const auto now = std::chrono::steady_clock::now();
  std::unordered_map<pid_t, Sample> samples;
  for (NodeView& view : views) {
    const auto found_root = roots.find(view.name);
    if (found_root == roots.end()) continue;
    const Process* const root = found_root->second;
    uint64_t ticks = 0;
    for (const auto& [process, depth] : table.treeOf(*root)) {
      samples[process->pid] = {process->startTicks, process->cpuTicks};
      const auto found = previous_.find(process->pid);
      const bool is_known = found != previous_.end() &&
                            found->second.startTicks == process->startTicks;
      const uint64_t before = is_known ? found->second.cpuTicks : 0;
      ticks += process->cpuTicks - std::min(before, process->cpuTicks);
    }
    const bool is_new = previous_.count(root->pid) == 0;
    if (time_ && !is_new) {
      const std::chrono::duration<double> elapsed = now - *time_;
      view.cpuPercent = cpuPercent(ticks, elapsed.count());
    }
  }
  previous_ = std::move(samples);
  time_ = now;
}

void addStaleness(const ProcessTable& table, const LauncherProcess& launcher,
                  std::vector<NodeView>& views) {
  const auto processes = processOfEachNode(table, launcher, views);
  for (NodeView& view : views) {
    const auto found = processes.find(view.name);
    if (found == processes.end()) continue;
    view.isStale = isStale(launcher, view.executable, *found->second);
  }
}

bool isReplaced(const struct stat& executed, const struct stat* named,
                double start) {
  if (executed.st_nlink == 0 || named == nullptr) return true;
  if (executed.st_dev == named->st_dev && executed.st_ino == named->st_ino) {
    return false;
  }
  // Unlike the time of the last modification, which package managers set, this
  // is the time when the file was put there.
  const double changed = static_cast<double>(named->st_ctim.tv_sec) +
                         static_cast<double>(named->st_ctim.tv_nsec) / 1e9;
  // The kernel rounds the start down to its own ticks, 10 ms.
  constexpr double kTolerance = 0.05;
  return changed > start + kTolerance;
}

}  // namespace vorn::launch
