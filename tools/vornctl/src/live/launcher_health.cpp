#include "live/launcher_health.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <iterator>
#include <sstream>

#include "descriptor.h"
#include "live/launcher_file.h"
#include "live/proc_file.h"
#include "output/text.h"

namespace vorn::launch {
namespace {

constexpr char kProgramName[] = "vornlaunch";
constexpr int kStateSamples = 30;
constexpr useconds_t kSamplePauseUs = 10'000;
// Lower pids are found in higher ones, which have more digits.
constexpr pid_t kFirstHighPid = 10000;

std::vector<std::string> textsOf(const std::vector<pid_t>& pids) {
  std::vector<std::string> texts;
  texts.reserve(pids.size());
  for (const pid_t pid : pids) texts.push_back(std::to_string(pid));
  return texts;
}

/// The pids of a process in our pid namespace and in each that is nested in
/// ours; empty if they cannot be read.
std::vector<pid_t> pidsOf(pid_t pid) {
  std::istringstream lines(readProcFile(procFile(pid, "status")).value_or(""));
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("NSpid:", 0) != 0) continue;
    std::istringstream words(line.substr(line.find(':') + 1));
    return {std::istream_iterator<pid_t>(words), {}};
  }
  return {};
}

/// Whether two processes are in the same pid namespace, as far as is known.
bool shareNamespace(pid_t a, const std::string& b) {
  const auto first = readProcLink(procFile(a, "ns/pid"));
  const auto second = readProcLink("/proc/" + b + "/ns/pid");
  if (first && second) return first == second;
  return b == "self" && pidsOf(a).size() == 1;
}

bool isLauncher(const Process& process) {
  return process.name == kProgramName && process.isAlive();
}

/// The PATH of a launcher, which its launch file can set.
std::optional<std::string> pathOf(const LauncherProcess& launcher) {
  const auto environment = readProcFile(procFile(launcher.pid, "environ"));
  if (!environment) return std::nullopt;
  std::string path = "/bin:/usr/bin";  // the default of the C library
  constexpr std::string_view kPath = "PATH=";
  for (const std::string& entry : splitAtNuls(*environment)) {
    if (entry.rfind(kPath, 0) == 0) path = entry.substr(kPath.size());
  }
  for (const Variable& variable : launcher.file.environment) {
    if (exportedName(variable.name.value) == "PATH") {
      path = untilNul(variable.value.value);
    }
  }
  return path;
}

/// The path of a program as the launcher finds it, with links resolved; empty
/// if it is not there.
std::string findTool(const LauncherProcess& launcher, const std::string& path,
                     const std::string& name) {
  std::istringstream directories(path);
  for (std::string each; std::getline(directories, each, ':');) {
    if (each.empty()) each = ".";
    std::string candidate = each;
    candidate.append("/").append(name);
    const Descriptor file(
        openAsLauncher(launcher.pid, *launcher.root, candidate, O_PATH));
    struct stat status {};
    if (file.number() < 0 || ::fstat(file.number(), &status) != 0) continue;
    if (!S_ISREG(status.st_mode) || (status.st_mode & 0111U) == 0) continue;
    return readProcLink("/proc/self/fd/" + std::to_string(file.number()))
        .value_or(candidate);
  }
  return "";
}

bool containsDigits(pid_t pid, pid_t searched) {
  return std::to_string(pid).find(std::to_string(searched)) !=
         std::string::npos;
}

}  // namespace

std::vector<pid_t> launchersNextTo(pid_t launcher,
                                   const ProcessTable& processes) {
  const std::string reference =
      launcher == 0 ? "self" : std::to_string(launcher);
  std::vector<pid_t> launchers;
  for (const Process& process : processes.all()) {
    if (!isLauncher(process)) continue;
    const Process* const parent = processes.find(process.parent);
    if (parent != nullptr && isLauncher(*parent)) continue;
    if (!shareNamespace(process.pid, reference)) continue;
    launchers.push_back(process.pid);
  }
  return launchers;
}

Finding launchersFinding(const std::vector<pid_t>& launchers, pid_t answering) {
  if (launchers.size() < 2) {
    const pid_t pid = launchers.empty() ? answering : launchers.front();
    if (pid != 0) return okFinding("launcher " + std::to_string(pid) + " runs");
    return {Verdict::ERROR, "no launcher runs",
            "start it, as a service with: systemctl start vornlaunch"};
  }
  std::vector<pid_t> others = launchers;
  others.erase(std::remove(others.begin(), others.end(), answering),
               others.end());
  const std::string begin =
      "launchers " + listOf(textsOf(launchers)) + " run; ";
  if (others.size() == launchers.size()) {
    return {Verdict::ERROR, begin + "only one of them can be controlled",
            "terminate all but one with 'kill PID'"};
  }
  std::string pids;
  for (const std::string& pid : textsOf(others)) pids += ' ' + pid;
  return {Verdict::ERROR,
          begin + "only " + std::to_string(answering) + " can be controlled",
          "terminate the other, which stops its nodes, with: kill" + pids};
}

std::optional<ActivityFacts> measureActivity(pid_t pid) {
  const auto before = readProcess(pid);
  if (!before) return std::nullopt;
  ActivityFacts facts;
  facts.pid = pid;
  facts.isAlwaysRunning = true;
  const double begin = ageOf(*before);
  for (int i = 0; i < kStateSamples; ++i) {
    (void)::usleep(kSamplePauseUs);
    const auto now = readProcess(pid);
    if (!now) return std::nullopt;
    facts.state = now->state;
    if (now->state != 'R') facts.isAlwaysRunning = false;
    facts.cpuPercent =
        cpuPercent(now->cpuTicks - before->cpuTicks, ageOf(*now) - begin);
  }
  const std::vector<pid_t> pids = pidsOf(pid);
  facts.isFirstProcess = !pids.empty() && pids.back() == 1;
  return facts;
}

Finding activityFinding(const ActivityFacts& facts) {
  const std::string name = "launcher " + std::to_string(facts.pid);
  const std::string share =
      std::to_string(std::lround(facts.cpuPercent)) + " % of a processor";
  if (facts.state == 'T' || facts.state == 't') {
    return {Verdict::ERROR, name + " is suspended (state " + facts.state + ')',
            "kill -CONT " + std::to_string(facts.pid)};
  }
  if (facts.state == 'Z') {
    return {Verdict::ERROR, name + " has exited", "start it again"};
  }
  if (!facts.isAlwaysRunning) return okFinding(name + " uses " + share);
  if (facts.isFirstProcess && !facts.hasAnswered) {
    return {Verdict::ERROR,
            name + " never sleeps (" + share +
                "): it has found an invalid launch file, and as process 1 it "
                "cannot abort",
            "correct the file, which 'vornctl check' examines, and start the "
            "container again"};
  }
  return {Verdict::WARNING, name + " never sleeps (" + share + ')',
          "read the end of its log, and look for a process that creates many "
          "short processes"};
}

std::optional<ToolFacts> examineTools(const LauncherProcess& launcher) {
  const auto path = pathOf(launcher);
  if (!path || !launcher.root) return std::nullopt;
  ToolFacts facts;
  facts.path = *path;
  for (const char* const name : {"ps", "grep"}) {
    const std::string found = findTool(launcher, *path, name);
    if (found.empty()) facts.missing.emplace_back(name);
    const std::string program = std::filesystem::path(found).filename();
    if (name == std::string("ps")) facts.isBusyboxPs = program == "busybox";
  }
  if (findTool(launcher, "/bin", "sh").empty()) {
    facts.missing.emplace_back("/bin/sh");
  }
  return facts;
}

Finding toolsFinding(const ToolFacts& facts) {
  if (!facts.missing.empty()) {
    return {Verdict::ERROR,
            "the launcher, whose PATH is '" + facts.path + "', cannot find " +
                listOf(facts.missing) +
                ": a stop takes its full 10 s or does not wait",
            "install procps, grep and a shell, or correct its PATH"};
  }
  if (facts.isBusyboxPs) {
    return {Verdict::ERROR,
            "the launcher's ps is that of busybox, which does not have the "
            "option -A: a stop does not wait for the exit of the node",
            "install the package procps"};
  }
  return okFinding("the launcher finds ps, grep and /bin/sh");
}

std::optional<PidFacts> examinePids(const LauncherProcess& launcher,
                                    const ProcessTable& processes) {
  const std::vector<pid_t> own = pidsOf(launcher.pid);
  const Process* const root = processes.find(launcher.pid);
  if (own.empty() || root == nullptr) return std::nullopt;
  const size_t depth = own.size() - 1;
  PidFacts facts;
  facts.isFirstProcess = own.back() == 1;
  for (const Process* const child : processes.childrenOf(launcher.pid)) {
    const std::vector<pid_t> pids = pidsOf(child->pid);
    if (pids.size() <= depth || !child->isAlive()) continue;
    facts.nodes[pids[depth]] = nodeOf(child->pid).value_or("a child");
  }
  const auto add_zombie = [&](const Process& process) {
    if (process.state != 'Z') return;
    const std::vector<pid_t> pids = pidsOf(process.pid);
    if (pids.size() > depth) facts.zombies.push_back(pids[depth]);
  };
  if (depth == 0) {
    for (const Process& process : processes.all()) add_zombie(process);
  } else {
    for (const auto& each : processes.treeOf(*root)) add_zombie(*each.first);
  }
  return facts;
}

Finding pidsFinding(const PidFacts& facts) {
  for (const auto& [pid, node] : facts.nodes) {
    const std::string begin =
        "pid " + std::to_string(pid) + " of " + node + " is a part of ";
    for (const pid_t zombie : facts.zombies) {
      if (!containsDigits(zombie, pid)) continue;
      return {Verdict::ERROR,
              begin + "the pid of the zombie " + std::to_string(zombie) +
                  ": a stop kills the node at once",
              "terminate the parent of the zombie before you stop the node"};
    }
    for (const auto& [other, name] : facts.nodes) {
      if (other == pid || !containsDigits(other, pid)) continue;
      std::string finding = begin;
      finding.append("pid ").append(std::to_string(other));
      finding.append(" of ").append(name).append(
          ": when all nodes are stopped, the first one can be killed at once");
      return {Verdict::WARNING, finding,
              "restart it, or raise the pids as the document about "
              "containers describes"};
    }
  }
  const bool is_low =
      !facts.nodes.empty() && facts.nodes.begin()->first < kFirstHighPid;
  if (facts.isFirstProcess && is_low) {
    return {
        Verdict::WARNING,
        "pids in this container have fewer than five digits, so a stop can "
        "confuse the node with another process and kill it at once",
        "start the launcher with high-pids, as the image's entrypoint does"};
  }
  return okFinding("a stop cannot confuse the present pids of nodes");
}

Finding launchFileFinding(const LauncherProcess& launcher,
                          const std::string& error, bool may_read) {
  if (!error.empty()) {
    // The remedy follows the reason.
    const size_t end = std::min(error.rfind("; "), error.size());
    if (!may_read) return unknownFinding(error.substr(0, end), kRunAsRoot);
    return {Verdict::ERROR, error.substr(0, end),
            "the next start of the launcher would fail: correct the file"};
  }
  if (launcher.hasChanged) {
    return {Verdict::WARNING,
            launcher.launchFile +
                " was changed after the launcher started and has no effect yet",
            "vornctl check " + shellArgument(launcher.launchFile) +
                ", then restart the launcher"};
  }
  return okFinding(launcher.launchFile +
                   " was not changed since the launcher started");
}

}  // namespace vorn::launch
