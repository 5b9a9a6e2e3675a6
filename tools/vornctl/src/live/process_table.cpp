#include "live/process_table.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <memory>
#include <sstream>

#include "live/proc_file.h"
#include "vorn/launch_rules.h"

namespace vorn::launch {
namespace {

double secondsOn(clockid_t clock) {
  timespec time{};
  if (::clock_gettime(clock, &time) != 0) return 0;
  return static_cast<double>(time.tv_sec) +
         static_cast<double>(time.tv_nsec) / 1e9;
}

bool endsWith(const std::string& text, const std::string& ending) {
  return text.size() >= ending.size() &&
         text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

}  // namespace

std::optional<Process> parseProcess(const std::string& stat) {
  // The name, in parentheses, may contain anything.
  const size_t name_begin = stat.find(" (");
  const size_t name_end = stat.rfind(')');
  if (name_begin == std::string::npos || name_end == std::string::npos ||
      name_end < name_begin + 2) {
    return std::nullopt;
  }
  Process process;
  process.pid = static_cast<pid_t>(std::strtol(stat.c_str(), nullptr, 10));
  process.name = stat.substr(name_begin + 2, name_end - name_begin - 2);
  if (name_end + 2 >= stat.size()) return std::nullopt;
  process.state = stat[name_end + 2];
  // Numbered from 1, as in proc_pid_stat(5); the state is field 3.
  std::array<uint64_t, 25> field{};
  const char* rest = stat.c_str() + name_end + 3;
  for (size_t number = 4; number < field.size(); ++number) {
    char* end = nullptr;
    field[number] = std::strtoull(rest, &end, 10);
    if (end == rest) return std::nullopt;
    rest = end;
  }
  constexpr uint64_t kKernelThread = 0x00200000;  // PF_KTHREAD
  process.parent = static_cast<pid_t>(field[4]);
  process.isKernelThread = (field[9] & kKernelThread) != 0;
  process.cpuTicks = field[14] + field[15];
  process.reapedTicks = field[16] + field[17];
  process.threads = static_cast<int64_t>(field[20]);
  process.startTicks = field[22];
  process.residentBytes =
      static_cast<int64_t>(field[24]) * ::sysconf(_SC_PAGESIZE);
  return process;
}

std::optional<Process> readProcess(pid_t pid) {
  const auto stat = readProcFile(procFile(pid, "stat"));
  return stat ? parseProcess(*stat) : std::nullopt;
}

double secondsOf(uint64_t ticks) {
  return static_cast<double>(ticks) /
         static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double startOf(const Process& process) {
  const double wall = secondsOn(CLOCK_REALTIME);
  return wall == 0 ? 0 : wall - ageOf(process);
}

double ageOf(const Process& process) {
  return std::max(0.0,
                  secondsOn(CLOCK_BOOTTIME) - secondsOf(process.startTicks));
}

double cpuPercent(uint64_t cpu_ticks, double seconds) {
  // The kernel counts in ticks, so shorter times have no meaning.
  constexpr double kShortest = 0.01;
  return 100 * secondsOf(cpu_ticks) / std::max(seconds, kShortest);
}

std::vector<std::string> argumentsOf(pid_t pid) {
  return splitAtNuls(readProcFile(procFile(pid, "cmdline")).value_or(""));
}

std::string commandLineOf(const Process& process) {
  std::string command;
  for (const std::string& argument : argumentsOf(process.pid)) {
    if (!command.empty()) command += ' ';
    command += argument;
  }
  return command.empty() ? '[' + process.name + ']' : command;
}

bool isInOurPidNamespace(pid_t pid) {
  // Anyone may read this file, unlike the link ns/pid.
  std::istringstream lines(readProcFile(procFile(pid, "status")).value_or(""));
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("NSpid:", 0) != 0) continue;
    // Its pid in our namespace, and in each that is nested in ours.
    std::istringstream words(line);
    return std::distance(std::istream_iterator<std::string>(words), {}) <= 2;
  }
  return true;  // more likely than not
}

std::optional<std::string> nodeNameIn(const std::string& environment) {
  const std::string variable = std::string(kNodeNameVariable) + "=";
  for (size_t begin = environment.find(variable); begin != std::string::npos;
       begin = environment.find(variable, begin + 1)) {
    if (begin > 0 && environment[begin - 1] != '\0') continue;
    const size_t value = begin + variable.size();
    const size_t end =
        std::min(environment.find('\0', value), environment.size());
    const std::string text = environment.substr(value, end - value);
    const std::string ending = kNodeNameSuffix;
    if (endsWith(text, ending)) {
      return text.substr(0, text.size() - ending.size());
    }
  }
  return std::nullopt;
}

ProcessTable::ProcessTable(std::vector<Process> processes)
    : processes_(std::move(processes)) {
  std::sort(processes_.begin(), processes_.end(),
            [](const auto& a, const auto& b) { return a.pid < b.pid; });
  for (size_t i = 0; i < processes_.size(); ++i) {
    children_.emplace_back(processes_[i].parent, i);
  }
  std::sort(children_.begin(), children_.end());
}

ProcessTable ProcessTable::read() {
  std::vector<Process> processes;
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir("/proc"),
                                                      ::closedir);
  if (!directory) return ProcessTable({});
  while (const dirent* const entry = ::readdir(directory.get())) {
    const auto pid =
        static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
    if (pid <= 0) continue;
    if (auto process = readProcess(pid)) {
      processes.push_back(std::move(*process));
    }
  }
  return ProcessTable(std::move(processes));
}

const Process* ProcessTable::find(pid_t pid) const {
  const auto found = std::lower_bound(processes_.begin(), processes_.end(), pid,
                                      [](const Process& process, pid_t wanted) {
                                        return process.pid < wanted;
                                      });
  return found != processes_.end() && found->pid == pid ? &*found : nullptr;
}

std::vector<const Process*> ProcessTable::childrenOf(pid_t pid) const {
  std::vector<const Process*> children;
  auto each = std::lower_bound(children_.begin(), children_.end(),
                               std::pair<pid_t, size_t>(pid, 0));
  for (; each != children_.end() && each->first == pid; ++each) {
    children.push_back(&processes_[each->second]);
  }
  return children;
}

std::vector<const Process*> ProcessTable::ancestorsOf(
    const Process& process) const {
  std::vector<const Process*> ancestors;
  const Process* each = find(process.parent);
  // A pid that was reused while the table was read can close a circle.
  while (each != nullptr && ancestors.size() < processes_.size()) {
    ancestors.push_back(each);
    each = find(each->parent);
  }
  return ancestors;
}

std::vector<std::pair<const Process*, size_t>> ProcessTable::treeOf(
    const Process& root) const {
  std::vector<std::pair<const Process*, size_t>> tree;
  std::vector<std::pair<const Process*, size_t>> pending = {{&root, 0}};
  while (!pending.empty() && tree.size() < processes_.size()) {
    const auto [process, depth] = pending.back();
    pending.pop_back();
    tree.emplace_back(process, depth);
    const auto children = childrenOf(process->pid);
    for (auto child = children.rbegin(); child != children.rend(); ++child) {
      pending.emplace_back(*child, depth + 1);
    }
  }
  return tree;
}

}  // namespace vorn::launch
